#include "stream/base/reflect/IClass.h"

#include <dlfcn.h>

#include <mutex>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

IProperty::IProperty(const char* name, Kind kind, const char* description)
    : _name(name ? name : ""), _kind(kind), _description(description ? description : "") {}

const char* IProperty::KindName() const {
  switch (_kind) {
    case Member: return "member";
    case Setter: return "setter";
    case Getter: return "getter";
    default: return "getter(arg)";
  }
}

bool IProperty::SetValue(object*, const void*, const std::type_info&) const { return false; }
bool IProperty::GetValue(object*, void*, const std::type_info&) const { return false; }
bool IProperty::RunValue(object*, void*, const std::type_info&, const void*, const std::type_info&) const {
  return false;
}

std::string IProperty::TypeName() const {
  std::string t = TypeNameOf(ValueType());
  if (const std::type_info* a = ArgType()) t = TypeNameOf(*a) + " -> " + t;
  return t;
}

IClass::IClass(const char* name, std::vector<IProperty*> properties)
    : _name(name ? name : ""), _words(SplitWords(name)), _properties(std::move(properties)) {}

IClass::~IClass() {
  for (IProperty* p : _properties) delete p;
}

std::vector<IClass*>& IClass::Globle() {
  // The registry lives as long as the process: classes of unloaded modules are never removed.
  static auto* classes = new std::vector<IClass*>();
  return *classes;
}

std::vector<std::string> IClass::SplitWords(const char* text) {
  std::vector<std::string> words;
  Spliter s(text, '-', true, true);
  for (const auto& w : s.All()) words.push_back(ToLower(w));
  return words;
}

bool IClass::Match(const std::vector<std::string>& words) const {
  if (words.empty()) return false;
  for (const auto& w : words) {
    bool found = false;
    for (const auto& own : _words) found = found || own == w;
    if (!found) return false;
  }
  return true;
}

IClass* IClass::Find(const char* name, bool exact) {
  if (!name) return nullptr;
  if (exact) {
    const std::string n = ToLower(name);
    for (IClass* c : Globle())
      if (ToLower(c->_name) == n) return c;
    return nullptr;
  }
  Iterator it = 0;
  return Find(name, it);
}

IClass* IClass::Find(const char* words, Iterator& it) {
  const std::vector<std::string> w = SplitWords(words);
  auto& all = Globle();
  while (it < all.size()) {
    IClass* c = all[it++];
    if (c->Match(w)) return c;
  }
  return nullptr;
}

IClass* IClass::Register(IClass* cls) {
  if (!cls) return nullptr;
  if (cls->_name.empty() || Find(cls->Name(), true)) {
    LOGE << "!IClass::Register(" << cls->Name() << ")";
    delete cls;
    return nullptr;
  }
  Globle().push_back(cls);
  return cls;
}

object* IClass::FindBeforeNew(const char* name) { return name ? NamedFind(name) : nullptr; }

void IClass::Init(const char* module, int version, const char* vendor, const char* author,
                  const char* description) {
  _module = module ? module : "";
  _version = version;
  _vendor = vendor ? vendor : "";
  _author = author ? author : "";
  _description = description ? description : "";
}

IProperty* IClass::Property(const char* name) const {
  if (!name) return nullptr;
  for (IProperty* p : _properties)
    if (std::string(p->Name()) == name) return p;
  return nullptr;
}

void IClass::adopt(object* obj, AttrSet& ap) {
  if (!obj) return;
  if (auto* o = dynamic_cast<Object*>(obj)) {
    o->Class(this);
    const char* name = ap.Get("name");
    if (name && *name) {
      o->Name(name);
      NamedAdd(name, o);
    }
  }
}

bool IClass::initObject(object* obj, AttrSet& ap) { return initAttrSet(obj, ap); }

bool IClass::initAttrSet(object* obj, AttrSet& ap) {
  if (!obj) return false;
  for (size_t i = 0; i < ap.Size(); ++i) {
    const std::string key = ap.Key(i);
    if (key == "type" || key == "name" || key == "parent") continue;
    if (!obj->hasProperty(key.c_str())) continue;
    if (!obj->setString(key.c_str(), ap.Value(i))) LOGE << "!set(" << key << "," << ap.Value(i) << ")";
  }
  return true;
}

void IClass::logNoClass(const char* type) { LOGE << "no class:" << type; }
void IClass::logNoType(const AttrSet& ap) { LOGE << "!type " << ap.ToString(); }
void IClass::logSignature(const char* cls, const char* signature) {
  LOGI << "!TypeNewMatch<P...>() " << cls << " " << signature;
}

}  // namespace base

namespace {
std::mutex g_reflectMutex;
std::vector<ReflectEntry>& entries() {
  static auto* v = new std::vector<ReflectEntry>();
  return *v;
}
}  // namespace

int ReflectRun() {
  int ran = 0;
  for (;;) {
    void (*fn)() = nullptr;
    {
      std::lock_guard<std::mutex> lock(g_reflectMutex);
      for (auto& e : entries()) {
        if (!e.done) {
          e.done = true;
          fn = e.fn;
          break;
        }
      }
    }
    if (!fn) return ran;
    fn();
    ++ran;
  }
}

const std::vector<ReflectEntry>& ReflectEntries() { return entries(); }

bool LoadModule(const char* path, std::string& error) {
  void* h = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
  if (!h) {
    const char* e = dlerror();
    error = e ? e : "dlopen failed";
    return false;
  }
  ReflectRun();
  return true;
}

}  // namespace kiv

extern "C" int ReflectAdd(void (*fn)(), int priority, const char* name, const char* banner) {
  if (!fn) return -1;
  std::lock_guard<std::mutex> lock(kiv::g_reflectMutex);
  kiv::entries().push_back({fn, priority, name ? name : "", banner ? banner : "", false});
  return static_cast<int>(kiv::entries().size());
}
