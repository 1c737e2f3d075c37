// "info": the box tree of a movie file as text or JSON, or its tracks in short, and whether the file
// is whole. The verdict comes from the boxes' sizes alone: the parser complains about much that is no
// damage (a file-type box longer than it reads, a sample entry it has no class for), so its error
// lines are shown as notes.
#include <CLI/CLI.hpp>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/base/reflect/Object.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tools/Cli.h"

namespace boxweave {
namespace {

using kiv::base::AttrSet;
using kiv::base::IOIntReader;
using kiv::base::Printable;
using kiv::plugin::mov::IBox;
using json = nlohmann::ordered_json;

std::string quoted(const std::string& code) { return "'" + Printable(code) + "'"; }

// ---- the verdict

struct Header {
  unsigned long long size = 0;  // what the header claims; 0: up to the end of the parent
  std::string code;
  unsigned headerBytes = 8;  // 16 with a 64-bit size
  bool whole = false;        // false: fewer than a header's bytes are left
};

Header readHeader(kiv::base::IO& io, long long at, long long end) {
  Header h;
  if (end - at < 8 || !io.Seek(at, kiv::Position::front)) return h;
  IOIntReader r(io);
  h.size = r.Read32be();
  char code[4];
  if (io.Read(code, 4) != 4) return h;
  h.code.assign(code, 4);
  if (h.size == 1) {
    h.headerBytes = 16;
    if (end - at < 16) return h;
    h.size = r.Read64be();
  }
  h.whole = !r.Failed();
  return h;
}

std::string claim(const std::string& code, long long at, unsigned long long size) {
  return "box " + quoted(code) + " at offset " + std::to_string(at) + " claims " + std::to_string(size) + " bytes";
}

std::string holder(const IBox& parent) {
  return parent.Parent() ? "its parent " + quoted(parent.FCCString()) + " holds" : "the file holds";
}

// Where the children start is known for the root and the plain containers; for others only from a
// first child (behind fields of their own). -1: not known.
long long childrenStart(const IBox& box) {
  static const char* const kContainers[] = {"moov", "trak", "mdia", "minf", "dinf", "stbl",
                                            "edts", "mvex", "moof", "traf", "mfra"};
  if (!box.Parent()) return 0;
  for (const char* c : kContainers)
    if (std::strcmp(box.FCCString(), c) == 0) return box.PayloadPostion();
  return -1;
}

// Reads on where the parser stopped. A box whose parse fails (a sample entry without a class of its
// own fails its track's table) ends the walk of every box around it, and the tracks and boxes behind
// it would be lost; each box the structure shows behind the last one read is read on its own here.
// Stops where the structure does: damageIn names that place.
void readOn(IBox& box, long long end, kiv::base::IO& io, int depth = 0) {
  constexpr int kDepth = 32;  // far deeper than any movie; a hostile nesting is not followed
  long long pos = childrenStart(box);
  for (IBox* c = box.Child(); c; c = c->Next()) {
    if (c->Offset() < 0 || c->Offset() >= end || c->RealSize() < c->PayloadOffset() ||
        c->RealSize() > static_cast<unsigned long long>(end - c->Offset()))
      return;
    pos = c->Offset() + static_cast<long long>(c->RealSize());
    if (depth < kDepth) readOn(*c, pos, io, depth + 1);
  }
  if (childrenStart(box) < 0) return;
  while (pos < end) {
    const Header h = readHeader(io, pos, end);
    if (!h.whole || h.size < h.headerBytes || h.size > static_cast<unsigned long long>(end - pos)) return;
    const auto* c = reinterpret_cast<const unsigned char*>(h.code.data());
    // The code as the parser's walk takes it: the four bytes read little-endian.
    const unsigned fcc = static_cast<unsigned>(c[3]) << 24 | static_cast<unsigned>(c[2]) << 16 |
                         static_cast<unsigned>(c[1]) << 8 | c[0];
    IBox* bx = IBox::New(fcc, h.headerBytes == 8 ? static_cast<unsigned>(h.size) : 1u);
    if (!bx || !io.Seek(pos + h.headerBytes, kiv::Position::front)) {
      delete bx;
      return;
    }
    bx->Size(h.headerBytes == 8 ? static_cast<unsigned>(h.size) : 1u);
    bx->ExtendedSize(h.headerBytes == 8 ? 0 : h.size);
    bx->Offset(pos);
    box.Add(bx);
    AttrSet ap;
    bx->Parse(io, ap, true);  // a failure leaves what was read, as in the whole walk
    pos += static_cast<long long>(h.size);
    if (depth < kDepth) readOn(*bx, pos, io, depth + 1);
  }
}

// The first box that does not fit where it stands, or the place the walk could not go on from; empty
// for a whole tree. A box of the tree that runs past its parent was read all the same; one whose
// header the parser refused stands behind the last child read.
std::string damageIn(const IBox& box, long long end, kiv::base::IO& io) {
  long long pos = childrenStart(box);
  for (const IBox* c = box.Child(); c; c = c->Next()) {
    const unsigned long long room = end > c->Offset() ? static_cast<unsigned long long>(end - c->Offset()) : 0;
    if (c->RealSize() > room)
      return claim(c->FCCString(), c->Offset(), c->RealSize()) + "; " + holder(box) + " " + std::to_string(room) +
             " from there";
    if (c->RealSize() < c->PayloadOffset())
      return claim(c->FCCString(), c->Offset(), c->RealSize()) + ", less than its header";
    const std::string inner = damageIn(*c, c->Offset() + static_cast<long long>(c->RealSize()), io);
    if (!inner.empty()) return inner;
    pos = c->Offset() + static_cast<long long>(c->RealSize());
  }
  if (pos < 0 || pos >= end) return "";
  const Header h = readHeader(io, pos, end);
  const std::string room = std::to_string(end - pos);
  if (!h.whole) {
    // A few bytes behind the last child are padding inside a box, a cut header at the top.
    if (box.Parent()) return "";
    return "the file ends " + room + " bytes behind offset " + std::to_string(pos) + ", too few for a box header";
  }
  if (h.size == 0) return "";  // up to the end of the parent (or a terminator inside one)
  if (h.size > static_cast<unsigned long long>(end - pos))
    return claim(h.code, pos, h.size) + "; " + holder(box) + " " + room + " from there";
  if (h.size < h.headerBytes)
    return claim(h.code, pos, h.size) + ", less than its header";
  return "";
}

// ---- the summary

const IBox* child(const IBox* box, const char* code) {
  for (const IBox* c = box ? box->Child() : nullptr; c; c = c->Next())
    if (std::strcmp(c->FCCString(), code) == 0) return c;
  return nullptr;
}

std::string field(const IBox* box, const char* key) {
  AttrSet f;
  if (box) box->fields(f);
  return f.GetOrDef(key, "?");
}

// The channel configuration of the AudioSpecificConfig in an "esds" box; 0 when there is none. The
// descriptors are walked as the file holds them (lengths of one to four bytes).
unsigned esdsChannels(const IBox& esds, kiv::base::IO& io) {
  const long long start = esds.PayloadPostion() + 4, end = esds.Offset() + static_cast<long long>(esds.RealSize());
  if (end - start <= 0 || end - start > 4096 || !io.Seek(start, kiv::Position::front)) return 0;
  std::vector<unsigned char> b(static_cast<size_t>(end - start));
  if (io.Read(b.data(), static_cast<long long>(b.size())) != static_cast<long long>(b.size())) return 0;
  size_t p = 0;
  auto descriptor = [&](unsigned tag) {  // enters the descriptor when the next one has this tag
    if (p >= b.size() || b[p++] != tag) return false;
    for (int i = 0; i < 4 && p < b.size(); ++i)
      if (!(b[p++] & 0x80)) return true;
    return false;
  };
  if (!descriptor(3) || p + 3 > b.size()) return 0;
  const unsigned flags = b[p + 2];
  p += 3 + ((flags & 0x80) ? 2 : 0) + ((flags & 0x20) ? 2 : 0);
  if ((flags & 0x40) && p < b.size()) p += 1u + b[p];
  if (!descriptor(4) || (p += 13) > b.size() || !descriptor(5) || p + 2 > b.size()) return 0;
  // object type: 5 bits (31: 6 more); rate index: 4 bits (15: 24 more); then the channels, 4 bits.
  unsigned bit = 0;
  auto bits = [&](unsigned n) {
    unsigned v = 0;
    for (; n > 0; --n, ++bit) {
      if (p + bit / 8 >= b.size()) return 0u;
      v = v << 1 | ((b[p + bit / 8] >> (7 - bit % 8)) & 1u);
    }
    return v;
  };
  if (bits(5) == 31) bits(6);
  if (bits(4) == 15) bits(24);
  return bits(4);
}

// One line for the file, one a track: what a user checks first.
// How play reads a track's sample tables: into a list in memory, or (with --tables-on-file, from
// the switch size on) where they lie in the file. Composition offsets are not read from the file: a
// track that has them and reaches the size keeps the whole file from opening that way.
std::string tablesWay(const IBox& stbl, long long switchSize) {
  const unsigned long long bytes = stbl.RealSize();
  std::string s = ", tables ";
  if (static_cast<long long>(bytes) < switchSize)
    s += "in memory (stbl " + std::to_string(bytes) + " bytes, below " + std::to_string(switchSize) + ")";
  else if (child(&stbl, "ctts"))
    s += "in memory only (stbl " + std::to_string(bytes) + " bytes with ctts: play --tables-on-file refuses the file)";
  else
    s += "on file with --tables-on-file (stbl " + std::to_string(bytes) + " bytes)";
  return s;
}

// A fragmented file's length as the plug-in's information object tells it (from "mehd", without a
// demuxer and without reading a sample); 0 when the file has none.
std::string fragmentedLength(const std::string& path) {
  AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "FMp4Info-fmp4-info");
  std::unique_ptr<kiv::base::Object> info(kiv::base::Object::New<kiv::base::Object>(ap));
  unsigned long long ms = 0;
  // The object parses the head again: its complaints are those already noted.
  kiv::dbg::SetSink([](int, const std::string& line) {
    if (kiv::dbg::GetLevel() >= kiv::dbg::I) std::cerr << line;
  });
  const bool told = info && info->setString("url", path.c_str()) && info->Get("duration", ms);
  kiv::dbg::SetSink(nullptr);
  if (!told) return "  fragmented, duration unknown (no information object)\n";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(ms) / 1000.0);
  return std::string("  fragmented, duration ") + buf + " s" + (ms ? "" : " (no mehd)") + "\n";
}

void printSummary(const IBox& root, const std::string& path, long long size, kiv::base::IO& io, long long switchSize,
                  std::ostream& os) {
  std::string top;
  int fragments = 0;
  for (const IBox* c = root.Child(); c; c = c->Next()) {
    top += (top.empty() ? "" : " ") + Printable(c->FCCString());
    fragments += std::strcmp(c->FCCString(), "moof") == 0;
  }
  os << Printable(path) << ": " << size << " bytes, boxes: " << top << "\n";
  if (fragments > 0) os << fragmentedLength(path);
  const IBox* moov = child(&root, "moov");
  int n = 0;
  for (const IBox* trak = moov ? moov->Child() : nullptr; trak; trak = trak->Next()) {
    if (std::strcmp(trak->FCCString(), "trak") != 0) continue;
    const IBox* tkhd = child(trak, "tkhd");
    const IBox* mdia = child(trak, "mdia");
    const IBox* stbl = child(child(mdia, "minf"), "stbl");
    const IBox* stsd = child(stbl, "stsd");
    const IBox* entry = stsd ? stsd->Child() : nullptr;
    const std::string kind = field(child(mdia, "hdlr"), "component_subtype");
    long long scale = 0, duration = 0;
    AttrSet m;
    if (const IBox* mdhd = child(mdia, "mdhd")) mdhd->fields(m);
    m.Get("timescale", scale);
    m.Get("duration", duration);
    os << "  track " << ++n << ": " << Printable(kind) << " ";
    // A code the plug-in has no class for is read as a bare header: nothing of it can be shown.
    if (!entry) {
      os << "?";
    } else if (dynamic_cast<const kiv::plugin::mov::cfakebox*>(entry)) {
      os << "unsupported codec " << quoted(entry->FCCString());
    } else {
      os << Printable(entry->FCCString());
      if (kind == "vide") os << " " << field(tkhd, "width") << "x" << field(tkhd, "height");
      if (kind == "soun") {
        const IBox* esds = child(entry, "esds");
        const unsigned configured = esds ? esdsChannels(*esds, io) : 0;
        os << " " << field(entry, "sample_rate") << " Hz "
           << (configured ? std::to_string(configured) : field(entry, "channels")) << " ch";
      }
    }
    const std::string samples = field(child(stbl, "stsz"), "entries");
    // A fragmented file's tables are empty: its samples are described in the fragments.
    if (fragments > 0 && samples == "0") {
      os << ", samples in " << fragments << (fragments == 1 ? " fragment" : " fragments") << "\n";
      continue;
    }
    os << ", " << samples << " samples";
    if (scale > 0) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(duration) / static_cast<double>(scale));
      os << ", " << buf << " s";
    }
    if (stbl && entry && !dynamic_cast<const kiv::plugin::mov::cfakebox*>(entry)) os << tablesWay(*stbl, switchSize);
    os << "\n";
  }
}

// ---- JSON

// Texts from the file as valid UTF-8: kept when they are, else read byte by byte as Latin-1 (the
// copyright sign of QuickTime's user-data codes comes out as itself).
std::string utf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const size_t n = c < 0x80 ? 1 : (c >> 5) == 6 && c >= 0xc2 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 && c <= 0xf4 ? 4 : 0;
    if (n == 0 || i + n > s.size()) break;
    size_t k = 1;
    while (k < n && (static_cast<unsigned char>(s[i + k]) & 0xc0) == 0x80) ++k;
    if (k < n) break;
    i += n;
  }
  if (i == s.size()) return s;
  std::string out;
  for (const unsigned char c : s) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xc0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3f));
    }
  }
  return out;
}

// A field's text is a JSON number when it is a plain decimal integer that fits.
json value(const std::string& v) {
  long long n = 0;
  size_t used = 0;
  const bool digits = !v.empty() && v.find_first_not_of("-0123456789") == std::string::npos &&
                      !(v.size() > 1 && v[0] == '0') && v.rfind("-0", 0) != 0 && v.size() <= 18;
  if (digits) {
    try {
      n = std::stoll(v, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used == v.size()) return n;
  }
  return utf8(v);
}

json boxJson(const IBox& box) {
  json j = {{"type", utf8(box.FCCString())}, {"offset", box.Offset()}, {"size", box.RealSize()}};
  AttrSet f;
  box.fields(f);
  for (size_t i = 0; i < f.Size(); ++i) {
    const std::string key = f.Key(i);
    if (key != "type" && key != "offset" && key != "size" && key != "children") j[utf8(key)] = value(f.Value(i));
  }
  json children = json::array();
  for (const IBox* c = box.Child(); c; c = c->Next()) children.push_back(boxJson(*c));
  j["children"] = std::move(children);
  return j;
}

// ---- the verb

int fail(const std::string& path, const std::string& why) {
  std::fprintf(stderr, "boxweave: %s: %s\n", Printable(path).c_str(), why.c_str());
  return kFailed;
}

}  // namespace

int Info(const InfoOptions& o) {
  const std::string refused = NotAFile(o.path);
  if (!refused.empty()) return fail(o.path, refused);
  errno = 0;
  std::unique_ptr<kiv::base::IO> io(kiv::base::IO::New(o.path.c_str(), "rb"));
  if (!io) return fail(o.path, errno ? std::string("cannot open: ") + std::strerror(errno) : "cannot open");
  // The parser's complaints, each once: a damaged file repeats the same few many times.
  std::vector<std::string> notes;
  kiv::dbg::SetSink([&notes](int level, const std::string& line) {
    // Boxes without a class of their own are many and no fault; a failed child is told again by each
    // box around it.
    if (level == kiv::dbg::E && line.find("unknow box:") == std::string::npos &&
        line.find("!bx->Parse(") == std::string::npos) {
      const std::string text = LogText(line);
      if (std::find(notes.begin(), notes.end(), text) == notes.end() && notes.size() < 100) notes.push_back(text);
    }
    if (kiv::dbg::GetLevel() >= kiv::dbg::I) std::cerr << line;
  });
  kiv::base::IOBlockReader reader(*io, 32768);
  std::unique_ptr<IBox> root(IBox::New("root", 0));
  if (root) {
    AttrSet ap;
    // A failed parse is no verdict: the structure is. What the parser left is read on.
    root->Parse(reader, ap, true);
    readOn(*root, reader.Size(), reader);
  }
  kiv::dbg::SetSink(nullptr);
  if (!root) return kFailed;

  // One verdict, in the words of the file's boxes.
  std::string verdict;
  const std::string damage = damageIn(*root, reader.Size(), reader);
  if (!root->Child())
    verdict = "not a movie file: no box could be read";
  else if (!damage.empty())
    verdict = "damaged or truncated: " + damage;
  else if (!child(root.get(), "moov"))
    verdict = child(root.get(), "moof") ? "no moov: fragments without the movie they belong to"
                                        : "no moov: the recording was cut off before it was closed";

  std::ostringstream out;
  if (o.json) {
    json boxes = json::array();
    for (const IBox* c = root->Child(); c; c = c->Next()) boxes.push_back(boxJson(*c));
    json doc = {{"file", utf8(o.path)}, {"size", reader.Size()}, {"boxes", std::move(boxes)}};
    json jnotes = json::array();
    for (const std::string& n : notes) jnotes.push_back(utf8(n));
    doc["notes"] = std::move(jnotes);
    if (!verdict.empty()) doc["damage"] = utf8(verdict);
    out << doc.dump(1, ' ', false, json::error_handler_t::replace) << "\n";
  } else if (o.summary) {
    printSummary(*root, o.path, reader.Size(), reader, o.switchSize, out);
  } else {
    for (const IBox* c = root->Child(); c; c = c->Next()) c->Dump(out);
  }
  std::fwrite(out.str().data(), 1, out.str().size(), stdout);
  std::fflush(stdout);
  // The parser's own words mean little to a user. On a file with a verdict they restate it, and are
  // left to --log-level I; on a whole file a few tell what the plug-in would complain of.
  constexpr size_t kShown = 3;
  const bool detailed = kiv::dbg::GetLevel() >= kiv::dbg::I;
  if (!o.json && (verdict.empty() || detailed)) {
    for (size_t i = 0; i < notes.size() && (i < kShown || detailed); ++i)
      std::fprintf(stderr, "boxweave: note: %s\n", Printable(notes[i].substr(0, 120)).c_str());
    if (notes.size() > kShown && !detailed)
      std::fprintf(stderr, "boxweave: note: %zu more; --log-level I shows them\n", notes.size() - kShown);
  }
  return verdict.empty() ? kOk : fail(o.path, verdict);
}

Verb AddInfo(CLI::App& app) {
  auto o = std::make_shared<InfoOptions>();
  CLI::App* cmd = app.add_subcommand("info", "print the box tree of a movie file, or its tracks in short");
  cmd->footer(
      "Exit status 1 when a box runs past its parent or past the end of the file, the boxes do not\n"
      "reach the end of the file, there is no moov, or FILE is no movie file at all; the parser's\n"
      "complaints are printed as notes (a few; all of them from --log-level I on).");
  cmd->add_option("FILE", o->path, "the movie file (.mov, .mp4, fragmented too)")->required();
  CLI::Option* json = cmd->add_flag("--json", o->json, "the tree as JSON, with the notes and the damage found");
  CLI::Option* summary =
      cmd->add_flag("--summary", o->summary,
                    "one line for the file and one for each track, with the way play reads its sample tables")
          ->excludes(json);
  cmd->add_option("--switch-size", o->switchSize,
                  "with --summary, the size of a 'stbl' box from which play --tables-on-file leaves its tables on "
                  "file (default 65536, as play's)")
      ->type_name("BYTES")
      ->check(CLI::Range(0LL, 0x7fffffffLL))
      ->needs(summary);
  return {cmd, [o] { return Info(*o); }};
}

}  // namespace boxweave
