#include "stream/base/reflect/Object.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"

#if defined(__GNUC__)
#include <cxxabi.h>
#endif

namespace kiv {
namespace {
std::atomic<long long> g_live{0};
std::atomic<bool> g_debugDefault{false};
}  // namespace

void* object_base::operator new(std::size_t size) {
  void* p = ::operator new(size);
  ++g_live;
  return p;
}
void object_base::operator delete(void* p) noexcept {
  if (!p) return;
  --g_live;
  ::operator delete(p);
}
void* object_base::operator new[](std::size_t size) { return ::operator new[](size); }
void object_base::operator delete[](void* p) noexcept { ::operator delete[](p); }
long long object_base::LiveObjects() { return g_live; }

namespace base {

void SetDebugDefault(bool on) { g_debugDefault = on; }

// ---- object_param: an object without properties

void object_param::getPropertyNameList(std::vector<std::string>&) {}
bool object_param::hasProperty(const char*) { return false; }
IProperty* object_param::getPropertyInfo(const char*) { return nullptr; }
bool object_param::set(const char*, const void*, const std::type_info&) { return false; }
bool object_param::get(const char*, void*, const std::type_info&) { return false; }
bool object_param::run(const char*, void*, const std::type_info&, const void*, const std::type_info&) {
  return false;
}
object* object_param::getChild(const char*) { return nullptr; }
bool object_param::setoradd(const char* name, const char* value) { return setString(name, value); }
bool object_param::getString(const char* name, std::string& out) { return get(name, &out, typeid(std::string)); }
bool object_param::setString(const char* name, const char* value) { return set(name, &value, typeid(const char*)); }

uint32_t object_name::ID() const {
  if (_id == 0) _id = Hash(kHashBasis, _name.c_str());
  return _id;
}

// ---- object

object::object() : _debug(g_debugDefault) {}
object::~object() = default;

std::string object::TypeName() const { return TypeNameOf(typeid(*this)); }

std::ostream& object::operator>>(std::ostream& os) {
  os << TypeName();
  if (*Name()) os << "(" << Name() << ")";
  return os;
}
std::stringstream& object::operator>>(std::stringstream& ss) {
  static_cast<std::ostream&>(ss) << TypeName();
  if (*Name()) static_cast<std::ostream&>(ss) << "(" << Name() << ")";
  return ss;
}
object* object::getObject(const char*) { return nullptr; }
bool object::setObject(const char*, object*) { return false; }

bool object::fromAttrSet(const AttrSet& ap) {
  bool ok = true;
  for (size_t i = 0; i < ap.Size(); ++i) {
    if (!hasProperty(ap.Key(i))) continue;
    if (!setString(ap.Key(i), ap.Value(i))) {
      LOGE << "!setString(" << ap.Key(i) << "," << ap.Value(i) << ")";
      ok = false;
    }
  }
  return ok;
}

bool object::toAttrSet(AttrSet& ap) const {
  auto* self = const_cast<object*>(this);
  std::vector<std::string> names;
  self->getPropertyNameList(names);
  for (const auto& n : names) {
    IProperty* p = self->getPropertyInfo(n.c_str());
    if (!p || p->kind() != IProperty::Member) continue;
    std::string v;
    if (self->getString(n.c_str(), v)) ap.SetOrAdd(n.c_str(), v.c_str());
  }
  return true;
}

bool object::receiveMessage(Message&) { return false; }
bool object::processMessage(Message&) { return false; }
bool object::sendMessage(Message&) { return false; }
object* object::Clone() { return nullptr; }
bool object::configureBegin(AttrSet&) { return true; }
bool object::configure(AttrSet&) { return true; }
bool object::configureEnd(AttrSet&) { return true; }
bool object::create(AttrSet&) { return true; }
bool object::addChild(object*) { return false; }
bool object::removeChild(object*) { return false; }
bool object::foreach(const std::function<bool(object*)>&) { return true; }
bool object::layoutAdjust() { return true; }
int object::Entry(void*) { return 0; }

bool object::Configure(AttrSet& ap) { return configureBegin(ap) && configure(ap) && configureEnd(ap); }

std::string IAttributes::toString(const object& obj, bool multiline) {
  AttrSet ap;
  obj.toAttrSet(ap);
  return ap.ToString(multiline);
}

bool IAttributes::fromString(object& obj, const char* text) {
  AttrSet ap;
  if (!ap.Parse(text)) return false;
  return obj.fromAttrSet(ap);
}

// ---- Object: properties through the registry

namespace {
std::mutex g_namedMutex;
std::vector<std::pair<std::string, object*>>& named() {
  static std::vector<std::pair<std::string, object*>> v;
  return v;
}

// The property of that name: the object's own class first, then any registered class it is an
// instance of, in order of registration (so a class without a list of its own reaches its bases').
IProperty* findProperty(const Object* obj, const char* name) {
  if (!name) return nullptr;
  if (IClass* cls = obj->Class())
    if (IProperty* p = cls->Property(name)) return p;
  for (IClass* cls : IClass::Globle()) {
    if (!cls->IsA(obj)) continue;
    if (IProperty* p = cls->Property(name)) return p;
  }
  return nullptr;
}
}  // namespace

void NamedAdd(const char* name, object* obj) {
  std::lock_guard<std::mutex> lock(g_namedMutex);
  named().emplace_back(name, obj);
}

object* NamedFind(const char* name) {
  std::lock_guard<std::mutex> lock(g_namedMutex);
  for (auto& it : named())
    if (it.first == name) return it.second;
  return nullptr;
}

Object::~Object() {
  std::lock_guard<std::mutex> lock(g_namedMutex);
  auto& v = named();
  for (auto it = v.begin(); it != v.end();) it = it->second == this ? v.erase(it) : it + 1;
}

AttrSet& Object::AttrSetInit(AttrSet& ap, const char* kv, const char* type, const char* name, const char* keys,
                             object* parent) {
  if (kv && *kv) ap.Parse(kv);
  if (type && *type) {
    std::string t = type;
    if (keys && *keys) t += std::string("-") + keys;
    ap.SetOrAdd("type", t.c_str());
  }
  if (name && *name) ap.SetOrAdd("name", name);
  if (parent) ap.SetOrAdd<const void*>("parent", parent);
  return ap;
}

bool Object::NewPreProcessAttrSet(AttrSet& ap) {
  // An empty search string cannot find a class; a missing one is reported by the class search.
  const char* type = ap.Get("type");
  if (!type) return true;
  Spliter words(type, '-', true, true);
  return words.Items() > 0;
}

IClass* Object::Class() const {
  if (!_class) {
    for (IClass* cls : IClass::Globle()) {
      if (cls->Rtti() && *cls->Rtti() == typeid(*this)) {
        _class = cls;
        break;
      }
    }
  }
  return _class;
}

void Object::getPropertyNameList(std::vector<std::string>& names) {
  auto add = [&names](IClass* cls) {
    for (IProperty* p : cls->Properties()) {
      bool seen = false;
      for (const auto& n : names) seen = seen || n == p->Name();
      if (!seen) names.push_back(p->Name());
    }
  };
  if (IClass* own = Class()) add(own);
  for (IClass* cls : IClass::Globle())
    if (cls != Class() && cls->IsA(this)) add(cls);
}

bool Object::hasProperty(const char* name) { return findProperty(this, name) != nullptr; }
IProperty* Object::getPropertyInfo(const char* name) { return findProperty(this, name); }

bool Object::set(const char* name, const void* value, const std::type_info& type) {
  IProperty* p = findProperty(this, name);
  return p && p->CanWrite() && p->SetValue(this, value, type);
}

bool Object::get(const char* name, void* value, const std::type_info& type) {
  IProperty* p = findProperty(this, name);
  return p && p->CanRead() && p->GetValue(this, value, type);
}

bool Object::run(const char* name, void* out, const std::type_info& outType, const void* arg,
                 const std::type_info& argType) {
  IProperty* p = findProperty(this, name);
  return p && p->kind() == IProperty::GetterArg && p->RunValue(this, out, outType, arg, argType);
}

bool Object::getString(const char* name, std::string& out) { return get(name, &out, typeid(std::string)); }
bool Object::setString(const char* name, const char* value) { return set(name, &value, typeid(const char*)); }

int Reference::Release() {
  const int left = --_ref;
  if (left == 0) delete this;
  return left;
}

// ---- typed values through text

namespace {
template <class T>
bool toText(const void* v, const std::type_info& type, std::string& out, bool& handled) {
  if (handled || type != typeid(T)) return false;
  handled = true;
  return ConvertToImpl(*static_cast<const T*>(v), out);
}
template <class T>
bool fromText(const char* text, void* v, const std::type_info& type, bool& handled) {
  if (handled || type != typeid(T)) return false;
  handled = true;
  return ConvertToImpl(text, *static_cast<T*>(v));
}
}  // namespace

bool AnyToText(const void* value, const std::type_info& type, std::string& out) {
  if (!value) return false;
  if (type == typeid(const char*) || type == typeid(char*)) {
    const char* s = *static_cast<const char* const*>(value);
    if (!s) return false;
    out = s;
    return true;
  }
  if (type == typeid(void*) || type == typeid(const void*)) return ConvertToImpl(*static_cast<const void* const*>(value), out);
  bool h = false;
  bool ok = toText<bool>(value, type, out, h) || toText<char>(value, type, out, h) ||
            toText<signed char>(value, type, out, h) || toText<unsigned char>(value, type, out, h) ||
            toText<short>(value, type, out, h) || toText<unsigned short>(value, type, out, h) ||
            toText<int>(value, type, out, h) || toText<unsigned>(value, type, out, h) ||
            toText<long>(value, type, out, h) || toText<unsigned long>(value, type, out, h) ||
            toText<long long>(value, type, out, h) || toText<unsigned long long>(value, type, out, h) ||
            toText<float>(value, type, out, h) || toText<double>(value, type, out, h) ||
            toText<std::string>(value, type, out, h) || toText<Fraction>(value, type, out, h) ||
            toText<AttrSet>(value, type, out, h);
  return ok;
}

bool TextToAny(const char* text, void* value, const std::type_info& type) {
  if (!text || !value) return false;
  if (type == typeid(void*)) return ConvertToImpl(text, *static_cast<void**>(value));
  bool h = false;
  return fromText<bool>(text, value, type, h) || fromText<char>(text, value, type, h) ||
         fromText<signed char>(text, value, type, h) || fromText<unsigned char>(text, value, type, h) ||
         fromText<short>(text, value, type, h) || fromText<unsigned short>(text, value, type, h) ||
         fromText<int>(text, value, type, h) || fromText<unsigned>(text, value, type, h) ||
         fromText<long>(text, value, type, h) || fromText<unsigned long>(text, value, type, h) ||
         fromText<long long>(text, value, type, h) || fromText<unsigned long long>(text, value, type, h) ||
         fromText<float>(text, value, type, h) || fromText<double>(text, value, type, h) ||
         fromText<std::string>(text, value, type, h) || fromText<Fraction>(text, value, type, h) ||
         fromText<AttrSet>(text, value, type, h);
}

std::string TypeNameOf(const std::type_info& type) {
  if (type == typeid(int)) return "int";
  if (type == typeid(unsigned)) return "unsigned int";
  if (type == typeid(long long)) return "long long";
  if (type == typeid(unsigned long long)) return "unsigned long long";
  if (type == typeid(bool)) return "bool";
  if (type == typeid(std::string)) return "string";
  if (type == typeid(Fraction)) return "Fraction";
  if (type == typeid(AttrSet)) return "AttrSet&";
#if defined(__GNUC__)
  int status = 0;
  char* d = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  if (d) {
    std::string s = d;
    std::free(d);
    return s;
  }
#endif
  return type.name();
}

}  // namespace base
}  // namespace kiv
