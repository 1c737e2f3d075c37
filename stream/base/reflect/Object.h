// The host's object model: allocation, names, the property interface, configuration and reference counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "stream/base/AttrSet.h"

namespace kiv {

// Root of everything the host creates; allocation goes through the host's allocator.
class object_base {
 public:
  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;
  static void* operator new[](std::size_t size);
  static void operator delete[](void* p) noexcept;
  virtual ~object_base() = default;
  // Objects alive through this allocator (for leak checks of hosts and tests).
  static long long LiveObjects();
};

namespace base {

class IClass;
class IProperty;
class Message;
class object;

// The property interface. Values travel typed (pointer and type_info) or as text.
class object_param : public virtual object_base {
 public:
  virtual void getPropertyNameList(std::vector<std::string>& names);
  virtual bool hasProperty(const char* name);
  virtual IProperty* getPropertyInfo(const char* name);
  virtual bool set(const char* name, const void* value, const std::type_info& type);
  virtual bool get(const char* name, void* value, const std::type_info& type);
  // Getter with one argument.
  virtual bool run(const char* name, void* out, const std::type_info& outType, const void* arg,
                   const std::type_info& argType);
  virtual object* getChild(const char* name);
  virtual bool setoradd(const char* name, const char* value);
  virtual bool getString(const char* name, std::string& out);
  virtual bool setString(const char* name, const char* value);

  bool Set(const char* name, const void* value, const std::type_info& type) { return set(name, value, type); }
  bool Get(const char* name, void* value, const std::type_info& type) { return get(name, value, type); }
  template <class T>
  bool SetWithType(const char* name, const T& v) {
    return set(name, &v, typeid(T));
  }
  template <class T>
  bool GetWithType(const char* name, T& v) {
    return get(name, &v, typeid(T));
  }
  bool HasProperty(const char* name) { return hasProperty(name); }
  bool Set(const char* name, int v) { return SetWithType(name, v); }
  bool Set(const char* name, unsigned v) { return SetWithType(name, v); }
  bool Set(const char* name, long long v) { return SetWithType(name, v); }
  bool Set(const char* name, unsigned long long v) { return SetWithType(name, v); }
  bool Set(const char* name, bool v) { return SetWithType(name, v); }
  bool Set(const char* name, const char* text) { return setString(name, text); }
  bool Set(const char* name, AttrSet& ap) { return SetWithType(name, ap); }
  template <class T>
  bool Set(const char* name, T* p) {
    return SetWithType(name, p);
  }
  template <class T>
  bool Get(const char* name, T& v) {
    return GetWithType(name, v);
  }
  template <class T>
  bool GetIntT(const char* name, T& v) {
    return GetWithType(name, v);
  }
  template <class R, class A>
  bool Run(const char* name, R& out, const A& arg) {
    return run(name, &out, typeid(R), &arg, typeid(A));
  }
};

class object_name : public virtual object_base {
 public:
  const char* Name() const { return _name.c_str(); }
  // Hash of the name, computed on first use.
  uint32_t ID() const;
  uint32_t Order() const { return ID(); }

 protected:
  void setName(const char* text) {
    _name = text ? text : "";
    _id = 0;
  }

 private:
  std::string _name;
  mutable uint32_t _id = 0;
};

class object_keywords : public object_name {
 public:
  using object_name::Name;
  void Name(const char* text) { setName(text); }
};

// Concrete object: the hooks that every host object has.
class object : public object_param, public object_keywords {
 public:
  object();
  ~object() override;
  virtual std::ostream& operator>>(std::ostream& os);
  virtual std::stringstream& operator>>(std::stringstream& ss);
  virtual object* getObject(const char* name);
  virtual bool setObject(const char* name, object* obj);
  // Sets every attribute that names a property; unknown keys are passed over.
  virtual bool fromAttrSet(const AttrSet& ap);
  // Adds every readable property as text.
  virtual bool toAttrSet(AttrSet& ap) const;
  virtual bool receiveMessage(Message& msg);
  virtual bool processMessage(Message& msg);
  virtual bool sendMessage(Message& msg);
  virtual object* Clone();
  virtual bool configureBegin(AttrSet& ap);
  virtual bool configure(AttrSet& ap);
  virtual bool configureEnd(AttrSet& ap);
  virtual bool create(AttrSet& ap);
  virtual bool addChild(object* child);
  virtual bool removeChild(object* child);
  virtual bool foreach(const std::function<bool(object*)>& fn);
  virtual bool layoutAdjust();
  virtual int Entry(void* arg);

  bool Configure(AttrSet& ap);
  bool Debug() const { return _debug; }
  void Debug(bool on) { _debug = on; }
  // Type name of the dynamic type, demangled.
  std::string TypeName() const;

 private:
  bool _debug;
};

// The whole-object text form over toAttrSet and fromAttrSet.
class IAttributes {
 public:
  static std::string toString(const object& obj, bool multiline = false);
  static bool fromString(object& obj, const char* text);
};

// Default per-object debug switch for objects created from now on (L lines need it).
void SetDebugDefault(bool on);

class object_proxy : public object {};

// An object whose properties are those its registered class (and the registered bases) declare.
class Object : public object_proxy {
 public:
  ~Object() override;
  // Fills ap with "type" (the search words, with "-" keys appended) and, if given, "name" and "parent";
  // kv is a further text of attributes.
  static AttrSet& AttrSetInit(AttrSet& ap, const char* kv, const char* type, const char* name = nullptr,
                              const char* keys = nullptr, object* parent = nullptr);
  static bool NewPreProcessAttrSet(AttrSet& ap);
  template <class T, class... A>
  static T* New(AttrSet& ap, A&&... args);

  IClass* Class() const;
  void Class(IClass* cls) { _class = cls; }

  void getPropertyNameList(std::vector<std::string>& names) override;
  bool hasProperty(const char* name) override;
  IProperty* getPropertyInfo(const char* name) override;
  bool set(const char* name, const void* value, const std::type_info& type) override;
  bool get(const char* name, void* value, const std::type_info& type) override;
  bool run(const char* name, void* out, const std::type_info& outType, const void* arg,
           const std::type_info& argType) override;
  bool getString(const char* name, std::string& out) override;
  bool setString(const char* name, const char* value) override;

 private:
  mutable IClass* _class = nullptr;
};

// Reference count; the last Release destroys.
class Reference {
 public:
  Reference() = default;
  Reference(const Reference&) = delete;
  Reference& operator=(const Reference&) = delete;
  int Hold() { return ++_ref; }
  int Release();
  int Count() const { return _ref; }

 protected:
  virtual ~Reference() = default;

 private:
  std::atomic<int> _ref{1};
};

template <class T>
void Release(T*& p) {
  if (p) {
    p->Release();
    p = nullptr;
  }
}

// Objects created with a "name" attribute, for IClass::FindBeforeNew; removed when destroyed.
void NamedAdd(const char* name, object* obj);
object* NamedFind(const char* name);

// Typed value <-> text, for properties whose caller uses another type than the property's.
bool AnyToText(const void* value, const std::type_info& type, std::string& out);
bool TextToAny(const char* text, void* value, const std::type_info& type);

}  // namespace base
}  // namespace kiv

#include "stream/base/reflect/IClass.h"
