// "inspect": the class table as the registry holds it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "stream/base/reflect/IClass.h"
#include "tools/Cli.h"

namespace boxweave {
namespace {

void printClass(const kiv::base::IClass& c, bool detail) {
  std::printf("%s\n", c.Name());
  std::string words;
  for (const auto& w : c.Words()) words += (words.empty() ? "" : " ") + w;
  std::printf("  keywords:   %s\n", words.c_str());
  if (detail) {
    std::printf("  module:     %s %d.%d.%d, vendor %s\n", c.Module(), (c.Version() >> 16) & 0xff,
                (c.Version() >> 8) & 0xff, c.Version() & 0xff, c.Vendor());
    std::printf("  type:       %s%s\n", c.Rtti() ? kiv::base::TypeNameOf(*c.Rtti()).c_str() : "?",
                c.Abstract() ? " (abstract)" : "");
  }
  if (c.Properties().empty()) return;
  std::printf("  properties:\n");
  for (const kiv::base::IProperty* p : c.Properties())
    std::printf("    %-28s %-12s %s\n", p->Name(), p->KindName(), p->TypeName().c_str());
}

int inspect(const std::string& words) {
  using kiv::base::IClass;
  if (words.empty()) {
    for (const IClass* c : IClass::Globle()) printClass(*c, false);
    return kOk;
  }
  // As the creation protocol picks: the first class in registration order that matches every word
  // and can be created.
  IClass::Iterator it = 0;
  const IClass* chosen = nullptr;
  std::vector<const IClass*> passed;
  while (const IClass* c = IClass::Find(words.c_str(), it)) {
    if (c->Abstract()) {
      passed.push_back(c);
      continue;
    }
    chosen = c;
    break;
  }
  if (!chosen) {
    std::fprintf(stderr, "boxweave: no class can be created for '%s'\n", words.c_str());
    return kFailed;
  }
  printClass(*chosen, true);
  for (const IClass* c : passed) std::printf("  (passed over the abstract %s)\n", c->Name());
  return kOk;
}

}  // namespace

Verb AddInspect(CLI::App& app) {
  auto words = std::make_shared<std::string>();
  CLI::App* cmd = app.add_subcommand("inspect", "list the registered classes, or show the class that WORDS finds");
  cmd->add_option("WORDS", *words, "keywords of a class, joined by '-' (e.g. mov-muxer)");
  return {cmd, [words] { return inspect(*words); }};
}

}  // namespace boxweave
