#include "tools/SrtReader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"

namespace boxweave {

namespace {

// The largest text a sample's 16-bit length tells.
constexpr size_t kMaxText = 0xFFFF;

bool digits(const std::string& s, size_t at, size_t n, long long& v) {
  if (at + n > s.size()) return false;
  v = 0;
  for (size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  return true;
}

// "HH:MM:SS,mmm" (hours of any width, a dot also taken for the comma) at `at`; `at` moves behind it.
bool parseTime(const std::string& s, size_t& at, long long& ms) {
  size_t p = at;
  while (p < s.size() && s[p] == ' ') ++p;
  const size_t hoursAt = p;
  while (p < s.size() && s[p] >= '0' && s[p] <= '9' && p - hoursAt < 7) ++p;
  long long h = 0, m = 0, sec = 0, milli = 0;
  if (p == hoursAt || !digits(s, hoursAt, p - hoursAt, h)) return false;
  if (p >= s.size() || s[p] != ':' || !digits(s, p + 1, 2, m) || p + 3 >= s.size() || s[p + 3] != ':' ||
      !digits(s, p + 4, 2, sec) || p + 6 >= s.size() || (s[p + 6] != ',' && s[p + 6] != '.') ||
      !digits(s, p + 7, 3, milli) || m > 59 || sec > 59)
    return false;
  ms = ((h * 60 + m) * 60 + sec) * 1000 + milli;
  at = p + 10;
  return true;
}

}  // namespace

bool ParseSrt(const std::string& input, std::vector<SrtCue>& cues, std::string& why) {
  std::string text = input;
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
  // Lines, without their CR.
  std::vector<std::string> lines;
  for (size_t at = 0; at <= text.size();) {
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) nl = text.size();
    std::string line = text.substr(at, nl - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    at = nl + 1;
  }
  std::vector<SrtCue> out;
  size_t i = 0;
  auto blank = [&](size_t k) { return lines[k].find_first_not_of(" \t") == std::string::npos; };
  while (i < lines.size()) {
    if (blank(i)) {
      ++i;
      continue;
    }
    // An optional number, then the timing line.
    size_t timing = i;
    if (lines[i].find("-->") == std::string::npos) timing = i + 1;
    if (timing >= lines.size() || lines[timing].find("-->") == std::string::npos) {
      why = "line " + std::to_string(i + 1) + ": no timing line 'HH:MM:SS,mmm --> HH:MM:SS,mmm' for this cue";
      return false;
    }
    const std::string& t = lines[timing];
    SrtCue cue;
    size_t at = 0;
    const size_t arrow = t.find("-->");
    if (!parseTime(t, at, cue.start) || t.find_first_not_of(' ', at) != arrow) {
      why = "line " + std::to_string(timing + 1) + ": '" + t + "' is no SubRip timing line";
      return false;
    }
    at = arrow + 3;
    if (!parseTime(t, at, cue.end)) {
      why = "line " + std::to_string(timing + 1) + ": '" + t + "' is no SubRip timing line";
      return false;
    }
    if (!out.empty() && cue.start < out.back().start) {
      why = "line " + std::to_string(timing + 1) + ": the cue starts before the one in front of it";
      return false;
    }
    i = timing + 1;
    while (i < lines.size() && !blank(i)) {
      if (!cue.text.empty()) cue.text += '\n';
      cue.text += lines[i++];
    }
    if (cue.text.size() > kMaxText) {
      why = "line " + std::to_string(timing + 1) + ": a cue of " + std::to_string(cue.text.size()) +
            " bytes is longer than a text sample holds (" + std::to_string(kMaxText) + ")";
      return false;
    }
    out.push_back(cue);
  }
  if (out.empty()) {
    why = "not a SubRip file: no cue in it";
    return false;
  }
  cues.swap(out);
  return true;
}

std::vector<TextSample> SamplesOfCues(const std::vector<SrtCue>& cues, long long& dropped) {
  std::vector<TextSample> samples;
  samples.reserve(2 * cues.size());
  dropped = 0;
  long long now = 0;
  for (size_t k = 0; k < cues.size(); ++k) {
    const SrtCue& c = cues[k];
    long long end = c.end;
    if (k + 1 < cues.size() && cues[k + 1].start < end) end = cues[k + 1].start;
    const long long start = c.start < now ? now : c.start;
    if (end <= start) {
      ++dropped;
      continue;
    }
    if (start > now) samples.push_back({now, start, ""});
    samples.push_back({start, end, c.text});
    now = end;
  }
  // An empty sample of no length marks where the last cue ends: MP4 readers take a subtitle sample to
  // last until the next one, whatever its own duration says.
  if (!samples.empty()) samples.push_back({now, now, ""});
  return samples;
}

std::string SrtTime(long long ms) {
  if (ms < 0) ms = 0;
  char buf[40];
  std::snprintf(buf, sizeof buf, "%02lld:%02lld:%02lld,%03lld", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
  return buf;
}

std::string SrtOfSamples(const std::vector<TextSample>& samples) {
  std::string out;
  int n = 0;
  for (const TextSample& s : samples) {
    if (s.text.empty()) continue;
    out += std::to_string(++n) + "\n" + SrtTime(s.start) + " --> " + SrtTime(s.end) + "\n" + s.text + "\n\n";
  }
  return out;
}

bool SrtReader::HandlesPath(const std::string& path) { return LowerExtension(path) == "srt"; }

bool SrtReader::fail(const std::string& message) {
  if (_error.empty()) {
    _error = _path + ": " + message;
    LOGE << _error;
  }
  return false;
}

bool SrtReader::Open(const std::string& path) {
  _path = path;
  errno = 0;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return fail(std::strerror(errno ? errno : EIO));
  std::string text;
  char buf[65536];
  size_t got = 0;
  bool tooLarge = false;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) {
    text.append(buf, got);
    if (static_cast<long long>(text.size()) > kMaxFile) {
      tooLarge = true;
      break;
    }
  }
  const bool readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError) return fail(std::strerror(errno ? errno : EIO));
  if (tooLarge) return fail("larger than " + std::to_string(kMaxFile) + " bytes: no subtitle file");
  if (text.empty()) return fail("empty file");
  std::vector<SrtCue> cues;
  std::string why;
  if (!ParseSrt(text, cues, why)) return fail(why);
  _samples = SamplesOfCues(cues, _dropped);
  if (_samples.empty()) return fail("no cue lasts any time");
  return true;
}

kiv::base::Fraction SrtReader::Rate() const {
  const long long ms = _samples.empty() ? 0 : _samples.back().end;
  const long long n = static_cast<long long>(_samples.size());
  if (ms <= 0 || n * 1000 <= ms) return kiv::base::Fraction(1, 1);
  return kiv::base::Fraction((n * 1000 + ms - 1) / ms, 1);
}

kiv::stream::Packet* SrtReader::NextPacket(kiv::stream::IMedia* media) {
  if (!_error.empty()) return PacketError();
  if (_next >= _samples.size()) return nullptr;
  const TextSample& s = _samples[_next];
  const size_t n = s.text.size();
  kiv::stream::Packet* p = kiv::stream::PacketAlloc(static_cast<int>(n + 2));
  if (!p) {
    fail("no packet for " + std::to_string(n + 2) + " bytes");
    return PacketError();
  }
  unsigned char* d = p->Data();
  d[0] = static_cast<unsigned char>(n >> 8);
  d[1] = static_cast<unsigned char>(n & 0xff);
  if (n) std::memcpy(d + 2, s.text.data(), n);
  p->SetKey(true);
  p->index = static_cast<long long>(_next);
  // The track takes a sample's duration from the stamp before to its own: the stamp is the end.
  p->pts = s.end * 1000000;
  p->duration = (s.end - s.start) * 1000000;
  p->media = media;
  ++_next;
  return p;
}

kiv::stream::IMedia* NewTextMedia(const kiv::base::Fraction& rate) {
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("txt");
  if (m) m->SetWithType("framerate", rate);
  return m;
}

}  // namespace boxweave
