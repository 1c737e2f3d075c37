// The class registry: classes by dash-separated keywords, their properties and constructors.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace base {

// One named value of a class: a data member, a setter, or a getter with none or one argument.
class IProperty : public object_base {
 public:
  enum Kind { Member, Setter, Getter, GetterArg };
  IProperty(const char* name, Kind kind, const char* description);
  const char* Name() const { return _name.c_str(); }
  Kind kind() const { return _kind; }
  const char* KindName() const;
  bool CanRead() const { return _kind != Setter; }
  bool CanWrite() const { return _kind == Member || _kind == Setter; }
  const char* Description() const { return _description.empty() ? nullptr : _description.c_str(); }
  virtual const std::type_info& ValueType() const = 0;
  virtual const std::type_info* ArgType() const { return nullptr; }
  // Is the object of the class that declares this property?
  virtual bool Applies(object* obj) const = 0;
  virtual bool SetValue(object* obj, const void* value, const std::type_info& type) const;
  virtual bool GetValue(object* obj, void* value, const std::type_info& type) const;
  virtual bool RunValue(object* obj, void* out, const std::type_info& outType, const void* arg,
                        const std::type_info& argType) const;
  bool SetText(object* obj, const char* text) const { return SetValue(obj, &text, typeid(const char*)); }
  bool GetText(object* obj, std::string& out) const { return GetValue(obj, &out, typeid(std::string)); }
  // Readable name of the value type ("int", "Fraction", "AttrSet&", ...).
  std::string TypeName() const;

 private:
  std::string _name;
  Kind _kind;
  std::string _description;
};

// Readable name of a type.
std::string TypeNameOf(const std::type_info& type);

namespace detail {

template <class T>
bool assignFrom(T& dst, const void* value, const std::type_info& type) {
  if (type == typeid(T)) {
    dst = *static_cast<const T*>(value);
    return true;
  }
  if constexpr (IsTextConvertible<T>::value) {
    std::string text;
    return AnyToText(value, type, text) && ConvertToImpl(text.c_str(), dst);
  }
  return false;
}

template <class T>
bool assignTo(const T& src, void* value, const std::type_info& type) {
  if (type == typeid(T)) {
    *static_cast<T*>(value) = src;
    return true;
  }
  if constexpr (IsTextConvertible<T>::value) {
    std::string text;
    return ConvertToImpl(src, text) && TextToAny(text.c_str(), value, type);
  }
  return false;
}

}  // namespace detail

template <class C>
class TPropertyBase : public IProperty {
 public:
  using IProperty::IProperty;
  bool Applies(object* obj) const override { return self(obj) != nullptr; }

 protected:
  static C* self(object* obj) { return obj ? dynamic_cast<C*>(obj) : nullptr; }
};

template <class C, class T, class B>
class TMemberProperty : public TPropertyBase<C> {
  static_assert(!std::is_function<T>::value, "a member property needs a data member");

 public:
  TMemberProperty(const char* name, T B::*member, const char* description)
      : TPropertyBase<C>(name, IProperty::Member, description), _member(member) {}
  const std::type_info& ValueType() const override { return typeid(T); }
  bool SetValue(object* obj, const void* value, const std::type_info& type) const override {
    C* c = this->self(obj);
    return c && detail::assignFrom(static_cast<B&>(*c).*_member, value, type);
  }
  bool GetValue(object* obj, void* value, const std::type_info& type) const override {
    C* c = this->self(obj);
    return c && detail::assignTo(static_cast<B&>(*c).*_member, value, type);
  }

 private:
  T B::*_member;
};

template <class C, class T, class B>
class TSetterProperty : public TPropertyBase<C> {
  using V = std::decay_t<T>;

 public:
  TSetterProperty(const char* name, bool (B::*fn)(T), const char* description)
      : TPropertyBase<C>(name, IProperty::Setter, description), _fn(fn) {}
  const std::type_info& ValueType() const override { return typeid(V); }
  bool SetValue(object* obj, const void* value, const std::type_info& type) const override {
    C* c = this->self(obj);
    if (!c) return false;
    if (type == typeid(V)) return (static_cast<B&>(*c).*_fn)(*const_cast<V*>(static_cast<const V*>(value)));
    V v{};
    return detail::assignFrom(v, value, type) && (static_cast<B&>(*c).*_fn)(v);
  }

 private:
  bool (B::*_fn)(T);
};

template <class C, class R, class B, class F>
class TGetterProperty : public TPropertyBase<C> {
 public:
  TGetterProperty(const char* name, F fn, const char* description)
      : TPropertyBase<C>(name, IProperty::Getter, description), _fn(fn) {}
  const std::type_info& ValueType() const override { return typeid(std::decay_t<R>); }
  bool GetValue(object* obj, void* value, const std::type_info& type) const override {
    C* c = this->self(obj);
    if (!c) return false;
    std::decay_t<R> r = (static_cast<B&>(*c).*_fn)();
    return detail::assignTo(r, value, type);
  }

 private:
  F _fn;
};

template <class C, class R, class A, class B, class F>
class TGetterArgProperty : public TPropertyBase<C> {
  using V = std::decay_t<A>;

 public:
  TGetterArgProperty(const char* name, F fn, const char* description)
      : TPropertyBase<C>(name, IProperty::GetterArg, description), _fn(fn) {}
  const std::type_info& ValueType() const override { return typeid(std::decay_t<R>); }
  const std::type_info* ArgType() const override { return &typeid(V); }
  bool RunValue(object* obj, void* out, const std::type_info& outType, const void* arg,
                const std::type_info& argType) const override {
    C* c = this->self(obj);
    V a{};
    if (!c || !detail::assignFrom(a, arg, argType)) return false;
    std::decay_t<R> r = (static_cast<B&>(*c).*_fn)(a);
    return detail::assignTo(r, out, outType);
  }

 private:
  F _fn;
};

// Property objects for class C, made the way registration functions make them.
template <class C>
struct TProperty {
  template <class T, class B>
  static IProperty* Member(const char* name, T B::*member, const char* description = nullptr) {
    return new TMemberProperty<C, T, B>(name, member, description);
  }
  template <class T, class B>
  static IProperty* Setter(const char* name, bool (B::*fn)(T), const char* description = nullptr) {
    return new TSetterProperty<C, T, B>(name, fn, description);
  }
  template <class R, class B>
  static IProperty* Getter(const char* name, R (B::*fn)(), const char* description = nullptr) {
    return new TGetterProperty<C, R, B, R (B::*)()>(name, fn, description);
  }
  template <class R, class B>
  static IProperty* Getter(const char* name, R (B::*fn)() const, const char* description = nullptr) {
    return new TGetterProperty<C, R, B, R (B::*)() const>(name, fn, description);
  }
  template <class R, class A, class B>
  static IProperty* Getter(const char* name, R (B::*fn)(A), const char* description = nullptr) {
    return new TGetterArgProperty<C, R, A, B, R (B::*)(A)>(name, fn, description);
  }
  template <class R, class A, class B>
  static IProperty* Getter(const char* name, R (B::*fn)(A) const, const char* description = nullptr) {
    return new TGetterArgProperty<C, R, A, B, R (B::*)(A) const>(name, fn, description);
  }
};

class IClass : public object_base {
 public:
  using Iterator = size_t;
  IClass(const char* name, std::vector<IProperty*> properties);
  ~IClass() override;

  // Every registered class in order of registration.
  static std::vector<IClass*>& Globle();
  // exact: the whole registry name; otherwise the first class whose words hold every word of name.
  static IClass* Find(const char* name, bool exact);
  // The next class from it on whose words hold every word of the search string; it moves behind it.
  static IClass* Find(const char* words, Iterator& it);
  // Enters a class; null (and the class destroyed) when one of that name is there already.
  static IClass* Register(IClass* cls);
  // An object created earlier with this "name" attribute, or null.
  static object* FindBeforeNew(const char* name);

  void Init(const char* module, int version, const char* vendor, const char* author, const char* description);
  IProperty* Property(const char* name) const;
  const std::vector<IProperty*>& Properties() const { return _properties; }
  const char* Name() const { return _name.c_str(); }
  const std::vector<std::string>& Words() const { return _words; }
  bool Match(const std::vector<std::string>& words) const;
  bool IsA(const object_base* obj) const { return _isType && obj && _isType(obj); }
  bool Abstract() const { return _create == nullptr; }
  const std::type_info* Rtti() const { return _rtti; }
  size_t ObjectSize() const { return _size; }
  const char* Module() const { return _module.c_str(); }
  int Version() const { return _version; }
  const char* Vendor() const { return _vendor.c_str(); }
  const char* Author() const { return _author.c_str(); }

  // Installs the constructor and its creation signature.
  void Install(void (*create)(), const std::type_info& signature) {
    _create = create;
    _signature = &signature;
  }

  template <class T, class... A>
  static T* New(AttrSet& ap, A&&... args);
  template <class... A>
  object* Create(AttrSet& ap, A&&... args);
  // Applies the attributes that name properties to a new object.
  bool initObject(object* obj, AttrSet& ap);
  // Applies attributes to an object found by name.
  bool initAttrSet(object* obj, AttrSet& ap);

  // Splits a search string or a registry name into its lower-case words.
  static std::vector<std::string> SplitWords(const char* text);

 protected:
  bool (*_isType)(const object_base*) = nullptr;
  const std::type_info* _rtti = nullptr;
  size_t _size = 0;

 private:
  static void logNoClass(const char* type);
  static void logNoType(const AttrSet& ap);
  static void logSignature(const char* cls, const char* signature);
  void adopt(object* obj, AttrSet& ap);

  std::string _name;
  std::vector<std::string> _words;
  std::vector<IProperty*> _properties;
  void (*_create)() = nullptr;
  const std::type_info* _signature = nullptr;
  std::string _module, _vendor, _author, _description;
  int _version = 0;
};

template <class C>
class TClass : public IClass {
 public:
  TClass(const char* name, std::vector<IProperty*> properties) : IClass(name, std::move(properties)) {}
  void initType() {
    _isType = [](const object_base* o) { return dynamic_cast<const C*>(o) != nullptr; };
    _rtti = &typeid(C);
    _size = sizeof(C);
  }
  template <class... A>
  static void initNew(IClass* cls) {
    cls->Install(reinterpret_cast<void (*)()>(&make<A...>), typeid(object*(A...)));
  }

 private:
  template <class... A>
  static object* make(A... args) {
    return new C(args...);
  }
};

template <class... A>
object* IClass::Create(AttrSet& ap, A&&... args) {
  if (!_create) return nullptr;
  using Fn = object* (*)(std::decay_t<A>...);
  if (!_signature || *_signature != typeid(object*(std::decay_t<A>...))) {
    logSignature(Name(), typeid(object*(std::decay_t<A>...)).name());
    return nullptr;
  }
  object* obj = reinterpret_cast<Fn>(_create)(std::forward<A>(args)...);
  adopt(obj, ap);
  if (obj && !initObject(obj, ap)) {
    delete obj;
    return nullptr;
  }
  return obj;
}

template <class T, class... A>
T* IClass::New(AttrSet& ap, A&&... args) {
  const char* type = ap.Get("type");
  if (!type || !*type) {
    logNoType(ap);
    return nullptr;
  }
  Iterator it = 0;
  for (;;) {
    IClass* cls = Find(type, it);
    if (!cls) {
      logNoClass(type);
      return nullptr;
    }
    const char* name = ap.Get("name");
    if (name && *name) {
      if (object* found = FindBeforeNew(name)) {
        cls->initAttrSet(found, ap);
        if (T* t = dynamic_cast<T*>(found)) return t;
      }
    }
    object* obj = cls->Create(ap, args...);
    if (!obj) continue;
    if (T* t = dynamic_cast<T*>(obj)) return t;
    delete obj;
  }
}

template <class T, class... A>
T* Object::New(AttrSet& ap, A&&... args) {
  if (!NewPreProcessAttrSet(ap)) {
    LOGE << "!NewPreProcessAttrSet(ap)";
    return nullptr;
  }
  T* t = IClass::New<T>(ap, std::forward<A>(args)...);
  if (!t) return nullptr;
  if (!t->Configure(ap)) {
    delete t;
    return nullptr;
  }
  return t;
}

// Registration of one class, steps the same for every class: properties made, the class found or
// entered, its constructor installed (not for abstract classes), then Init.
template <class C, class... CtorArgs>
IClass* ReflectClass(const char* name, std::vector<IProperty*> properties, bool concrete, const char* module,
                     int version, const char* vendor, const char* author) {
  IClass* cls = IClass::Find(name, true);
  if (!cls) {
    auto* t = new TClass<C>(name, std::move(properties));
    t->initType();
    cls = IClass::Register(t);
  } else {
    // A second run: the fresh property objects are not attached to the class that is there.
    for (IProperty* p : properties) delete p;
  }
  if (!cls) return nullptr;
  if (concrete) {
    if constexpr (!std::is_abstract<C>::value) TClass<C>::template initNew<CtorArgs...>(cls);
  }
  cls->Init(module, version, vendor, author, nullptr);
  return cls;
}

}  // namespace base
}  // namespace kiv

// Module entries: a module hands its registration function to the host at load; the host runs it.
extern "C" int ReflectAdd(void (*fn)(), int priority, const char* name, const char* banner);

namespace kiv {
struct ReflectEntry {
  void (*fn)();
  int priority;
  std::string name;
  std::string banner;
  bool done;
};
// Runs the registration functions handed over and not yet run; returns how many ran.
int ReflectRun();
const std::vector<ReflectEntry>& ReflectEntries();
// Loads a plug-in module and runs what it handed over. False with a reason on failure.
bool LoadModule(const char* path, std::string& error);
}  // namespace kiv
