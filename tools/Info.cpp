// "info": the box tree of a movie file, as text or as JSON.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "tools/Cli.h"

namespace boxweave {
namespace {

using kiv::base::AttrSet;
using kiv::plugin::mov::IBox;

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

// A field's text is written as a JSON number when it is a plain decimal integer.
std::string jsonValue(const char* v) {
  const char* p = v;
  if (*p == '-') ++p;
  bool digits = *p != '\0' && !(p[0] == '0' && p[1] != '\0');
  for (const char* q = p; *q && digits; ++q) digits = *q >= '0' && *q <= '9';
  return digits && std::strlen(p) <= 18 ? std::string(v) : jsonString(v);
}

void printText(const IBox& box, int depth, std::ostream& os) {
  AttrSet f;
  box.fields(f);
  os << std::string(static_cast<size_t>(depth) * 2, ' ') << box.FCCString() << "  offset=" << box.Offset()
     << " size=" << box.RealSize();
  for (size_t i = 0; i < f.Size(); ++i) {
    const std::string key = f.Key(i);
    if (key != "offset" && key != "size") os << ' ' << key << '=' << f.Value(i);
  }
  os << '\n';
  for (const IBox* c = box.Child(); c; c = c->Next()) printText(*c, depth + 1, os);
}

void printJson(const IBox& box, int depth, std::ostream& os) {
  const std::string pad(static_cast<size_t>(depth) * 2, ' ');
  AttrSet f;
  box.fields(f);
  os << pad << "{\"type\": " << jsonString(box.FCCString()) << ", \"offset\": " << box.Offset()
     << ", \"size\": " << box.RealSize();
  for (size_t i = 0; i < f.Size(); ++i) {
    const std::string key = f.Key(i);
    if (key == "type" || key == "offset" || key == "size" || key == "children") continue;
    os << ", " << jsonString(key) << ": " << jsonValue(f.Value(i));
  }
  os << ", \"children\": [";
  bool first = true;
  for (const IBox* c = box.Child(); c; c = c->Next()) {
    os << (first ? "\n" : ",\n");
    printJson(*c, depth + 1, os);
    first = false;
  }
  if (!first) os << "\n" << pad;
  os << "]}";
}

const IBox* child(const IBox* box, const char* code) {
  for (const IBox* c = box ? box->Child() : nullptr; c; c = c->Next())
    if (std::strcmp(c->FCCString(), code) == 0) return c;
  return nullptr;
}

const char* field(const IBox* box, const char* key, AttrSet& store) {
  store.Clear();
  if (box) box->fields(store);
  return store.GetOrDef(key, "?");
}

// One line for the file, one a track: what a user checks first.
void printSummary(const IBox& root, const std::string& path, long long size, std::ostream& os) {
  std::string top;
  for (const IBox* c = root.Child(); c; c = c->Next()) top += std::string(top.empty() ? "" : " ") + c->FCCString();
  os << path << ": " << size << " bytes, boxes: " << top << "\n";
  const IBox* moov = child(&root, "moov");
  int n = 0;
  for (const IBox* trak = moov ? moov->Child() : nullptr; trak; trak = trak->Next()) {
    if (std::strcmp(trak->FCCString(), "trak") != 0) continue;
    const IBox* tkhd = child(trak, "tkhd");
    const IBox* mdia = child(trak, "mdia");
    const IBox* mdhd = child(mdia, "mdhd");
    const IBox* hdlr = child(mdia, "hdlr");
    const IBox* stbl = child(child(mdia, "minf"), "stbl");
    const IBox* stsd = child(stbl, "stsd");
    const IBox* entry = stsd ? stsd->Child() : nullptr;
    AttrSet f;
    const std::string kind = field(hdlr, "component_subtype", f);
    long long scale = 0, duration = 0;
    AttrSet m;
    if (mdhd) mdhd->fields(m);
    m.Get("timescale", scale);
    m.Get("duration", duration);
    os << "  track " << ++n << ": " << kind << " " << (entry ? entry->FCCString() : "?");
    if (kind == "vide") os << " " << field(tkhd, "width", f) << "x" << field(tkhd, "height", f);
    if (kind == "soun") os << " " << field(entry, "sample_rate", f) << " Hz " << field(entry, "channels", f) << " ch";
    os << ", " << field(child(stbl, "stsz"), "entries", f) << " samples";
    if (scale > 0) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(duration) / static_cast<double>(scale));
      os << ", " << buf << " s";
    }
    os << "\n";
  }
}

}  // namespace

int RunInfo(const std::vector<std::string>& args) {
  bool json = false, summary = false;
  std::string path;
  for (const std::string& a : args) {
    if (a == "--json") {
      json = true;
    } else if (a == "--summary") {
      summary = true;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return UsageError("info: unknown option '" + a + "'");
    } else if (path.empty()) {
      path = a;
    } else {
      return UsageError("info takes one file");
    }
  }
  if (path.empty()) return UsageError("info needs a file");

  std::unique_ptr<kiv::base::IO> io(kiv::base::IO::New(path.c_str(), "rb"));
  if (!io) {
    std::fprintf(stderr, "boxweave: cannot open %s\n", path.c_str());
    return kFailed;
  }
  // Damage shows as error lines of the parser: the first of them is the reason given to the user.
  std::string firstError;
  kiv::dbg::SetSink([&firstError](int level, const std::string& line) {
    if (level == kiv::dbg::E && firstError.empty() && line.find("unknow box:") == std::string::npos) {
      const size_t tab = line.find(":\t");
      const size_t end = line.find('\n');
      firstError = tab == std::string::npos ? line : line.substr(tab + 2, end - tab - 2);
    }
    // The parser's own lines (unknown boxes are many) only when the user asked for them.
    if (kiv::dbg::GetLevel() >= kiv::dbg::I) std::cerr << line;
  });

  kiv::base::IOBlockReader reader(*io, 32768);
  std::unique_ptr<IBox> root(IBox::New("root", 0));
  AttrSet ap;
  const bool ok = root && root->Parse(reader, ap, true);
  kiv::dbg::SetSink(nullptr);
  if (!root) return kFailed;

  std::ostringstream out;
  if (summary) {
    printSummary(*root, path, reader.Size(), out);
  } else if (json) {
    out << "{\"file\": " << jsonString(path) << ", \"size\": " << reader.Size() << ", \"boxes\": [";
    bool first = true;
    for (const IBox* c = root->Child(); c; c = c->Next()) {
      out << (first ? "\n" : ",\n");
      printJson(*c, 1, out);
      first = false;
    }
    out << (first ? "" : "\n") << "]";
    if (!ok || !firstError.empty())
      out << ", \"error\": " << jsonString(firstError.empty() ? "parse failed" : firstError);
    out << "}\n";
  } else {
    for (const IBox* c = root->Child(); c; c = c->Next()) printText(*c, 0, out);
  }
  std::fwrite(out.str().data(), 1, out.str().size(), stdout);
  std::fflush(stdout);
  if (!ok || !firstError.empty()) {
    std::fprintf(stderr, "boxweave: %s is damaged or truncated: %s\n", path.c_str(),
                 firstError.empty() ? "the box tree could not be read" : firstError.c_str());
    return kFailed;
  }
  return kOk;
}

}  // namespace boxweave
