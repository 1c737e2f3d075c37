#include "tools/PcmReader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"

namespace boxweave {

namespace {

uint32_t le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
unsigned le16(const unsigned char* p) { return static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8; }

void put32(std::string& s, uint32_t v) {
  for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}
void put16(std::string& s, unsigned v) {
  s.push_back(static_cast<char>(v & 0xff));
  s.push_back(static_cast<char>((v >> 8) & 0xff));
}

bool parseUnsigned(const std::string& s, unsigned long max, unsigned& out) {
  if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long v = std::strtoul(s.c_str(), nullptr, 10);
  if (v == 0 || v > max) return false;
  out = static_cast<unsigned>(v);
  return true;
}

}  // namespace

bool ParsePcmFormat(const std::string& text, PcmFormat& format, std::string& why) {
  const size_t a = text.find(':');
  const size_t b = a == std::string::npos ? std::string::npos : text.find(':', a + 1);
  if (b == std::string::npos || text.find(':', b + 1) != std::string::npos) {
    why = "wants s16le:RATE:CHANNELS, not '" + text + "'";
    return false;
  }
  const std::string sample = text.substr(0, a);
  if (sample != "s16le") {
    why = "sample format '" + sample + "' is not supported: only s16le (16-bit little-endian PCM) is recorded";
    return false;
  }
  PcmFormat f;
  if (!parseUnsigned(text.substr(a + 1, b - a - 1), PcmReader::kMaxRate, f.rate)) {
    why = "rate '" + text.substr(a + 1, b - a - 1) + "' is not a rate from 1 to " + std::to_string(PcmReader::kMaxRate);
    return false;
  }
  if (!parseUnsigned(text.substr(b + 1), PcmReader::kMaxChannels, f.channels)) {
    why = "channels '" + text.substr(b + 1) + "': only 1 or 2 channels are recorded";
    return false;
  }
  format = f;
  return true;
}

PcmReader::~PcmReader() {
  if (_file) std::fclose(_file);
}

bool PcmReader::HandlesPath(const std::string& path) {
  const std::string e = LowerExtension(path);
  return e == "wav" || IsRaw(path);
}

bool PcmReader::IsRaw(const std::string& path) {
  const std::string e = LowerExtension(path);
  return e == "s16le" || e == "pcm";
}

unsigned PcmReader::FramesPerPacket(unsigned rate) { return rate && rate % 50 == 0 ? rate / 50 : 1024; }

bool PcmReader::fail(const std::string& message) {
  if (_error.empty()) {
    _error = _path + ": " + message;
    LOGE << _error;
  }
  return false;
}

bool PcmReader::Open(const std::string& path, const PcmFormat* raw) {
  _path = path;
  errno = 0;
  _file = std::fopen(path.c_str(), "rb");
  if (!_file) return fail(std::strerror(errno ? errno : EIO));
  struct stat st {};
  if (::fstat(fileno(_file), &st) != 0) return fail(std::strerror(errno ? errno : EIO));
  const unsigned long long fileSize = static_cast<unsigned long long>(st.st_size);
  if (fileSize == 0) return fail("empty file");
  unsigned long long dataBytes = fileSize;
  if (raw) {
    _format = *raw;
    _dataPos = 0;
  } else {
    if (!readWave()) return false;
    dataBytes = _frames;  // readWave leaves the data chunk's size here
    if (_dataPos > fileSize || dataBytes > fileSize - _dataPos) {
      // A writer that could not seek back leaves the size open (often 0xFFFFFFFF): the file's end counts.
      dataBytes = fileSize - std::min(_dataPos, fileSize);
      _clamped = true;
    }
  }
  if (!check()) return false;
  const unsigned frameBytes = 2 * _format.channels;
  _frames = dataBytes / frameBytes;
  _oddBytes = dataBytes % frameBytes;
  _perPacket = FramesPerPacket(_format.rate);
  if (_frames == 0) return fail("no whole sample frame in the data");
  if (std::fseek(_file, static_cast<long>(_dataPos), SEEK_SET) != 0) return fail(std::strerror(errno ? errno : EIO));
  return true;
}

bool PcmReader::check() {
  if (_format.rate == 0 || _format.rate > kMaxRate)
    return fail("rate " + std::to_string(_format.rate) + " Hz: only rates from 1 to " + std::to_string(kMaxRate) +
                " Hz are recorded");
  if (_format.channels == 0 || _format.channels > kMaxChannels)
    return fail(std::to_string(_format.channels) + " channels: only 1 or 2 channels are recorded");
  return true;
}

bool PcmReader::readWave() {
  unsigned char head[12];
  const size_t got = std::fread(head, 1, sizeof head, _file);
  if (got < sizeof head || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "WAVE", 4) != 0)
    return fail("not a RIFF/WAVE file");
  unsigned long long pos = 12;
  bool haveFmt = false;
  for (;;) {
    unsigned char ch[8];
    if (std::fread(ch, 1, 8, _file) != 8) return fail("no 'data' chunk");
    const uint32_t size = le32(ch + 4);
    pos += 8;
    if (std::memcmp(ch, "fmt ", 4) == 0) {
      unsigned char f[40] = {};
      const size_t want = size < sizeof f ? size : sizeof f;
      if (size < 16 || std::fread(f, 1, want, _file) != want) return fail("'fmt ' chunk of " + std::to_string(size) + " bytes");
      unsigned tag = le16(f);
      const unsigned channels = le16(f + 2);
      const unsigned rate = le32(f + 4);
      const unsigned align = le16(f + 12);
      const unsigned bits = le16(f + 14);
      // WAVE_FORMAT_EXTENSIBLE carries the real format tag in the first bytes of its sub-format.
      if (tag == 0xFFFE && size >= 40) tag = le16(f + 24);
      if (tag != 1 || bits != 16) {
        std::string what;
        if (tag == 1)
          what = std::to_string(bits) + "-bit PCM";
        else if (tag == 3)
          what = std::to_string(bits) + "-bit float";
        else if (tag == 6 || tag == 7)
          what = tag == 6 ? "A-law" : "mu-law";
        else
          what = "format tag " + std::to_string(tag);
        return fail("unsupported sample format: " + what + "; only 16-bit PCM is recorded");
      }
      _format.rate = rate;
      _format.channels = channels;
      if (channels && align != 2 * channels)
        return fail("block align " + std::to_string(align) + " does not fit " + std::to_string(channels) +
                    " channels of 16 bits");
      haveFmt = true;
    } else if (std::memcmp(ch, "data", 4) == 0) {
      if (!haveFmt) return fail("'data' chunk before the 'fmt ' chunk");
      _dataPos = pos;
      _frames = size;
      return true;
    }
    // The rest of this chunk, and its pad byte.
    pos += size + (size & 1u);
    if (pos > 0x7fffffffffffULL || std::fseek(_file, static_cast<long>(pos), SEEK_SET) != 0) return fail("no 'data' chunk");
  }
}

long long PcmReader::TimeOf(unsigned long long frame) const {
  return _format.rate ? static_cast<long long>(static_cast<long double>(frame) * 1e9L / _format.rate) : 0;
}

kiv::stream::Packet* PcmReader::NextPacket(kiv::stream::IMedia* media) {
  if (!_file || !_error.empty()) return PacketError();
  if (_next + _perPacket > _frames) return nullptr;  // a shorter packet would be counted wrong
  const int bytes = static_cast<int>(_perPacket * 2 * _format.channels);
  kiv::stream::Packet* p = kiv::stream::PacketAlloc(bytes);
  if (!p) {
    fail("no packet for " + std::to_string(bytes) + " bytes");
    return PacketError();
  }
  errno = 0;
  if (std::fread(p->Data(), 1, static_cast<size_t>(bytes), _file) != static_cast<size_t>(bytes)) {
    kiv::base::Release(p);
    fail(std::string("the data ends early: ") + (errno ? std::strerror(errno) : "file shorter than told"));
    return PacketError();
  }
  p->SetKey(true);
  p->index = _index++;
  p->pts = TimeOf(_next);
  p->duration = TimeOf(_next + _perPacket) - p->pts;
  p->media = media;
  _next += _perPacket;
  return p;
}

bool DescribePcm(const std::string& path, const PcmFormat* raw, PcmDescription& out, std::string& error) {
  PcmReader r;
  if (!r.Open(path, raw)) {
    error = r.Error();
    return false;
  }
  PcmDescription d;
  d.path = path;
  d.format = r.Format();
  d.frames = r.Frames();
  d.packetFrames = r.PacketFrames();
  d.perPacket = r.PerPacket();
  d.oddBytes = r.OddBytes();
  d.clamped = r.DataSizeClamped();
  if (d.packetFrames == 0) {
    error = path + ": " + std::to_string(d.frames) + " sample frames, fewer than one packet of " +
            std::to_string(d.perPacket);
    return false;
  }
  out = d;
  return true;
}

kiv::stream::IMedia* NewPcmMedia(const PcmDescription& d) {
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("pcm");
  if (!m) return nullptr;
  m->Set("rate", static_cast<int>(d.format.rate));
  m->Set("channel", static_cast<int>(d.format.channels));
  m->Set("width", 2);
  m->Set("depth", 16);
  m->Set("samples", static_cast<int>(d.perPacket));
  return m;
}

std::vector<std::string> PcmWarnings(const PcmDescription& d) {
  std::vector<std::string> w;
  if (d.frames > d.packetFrames)
    w.push_back(d.path + ": the last " + std::to_string(d.frames - d.packetFrames) +
                " sample frames are left out: they fill no whole packet of " + std::to_string(d.perPacket) +
                ", and the track holds only packets of one length");
  if (d.oddBytes) w.push_back(d.path + ": " + std::to_string(d.oddBytes) + " bytes at the end make no whole sample frame");
  if (d.clamped) w.push_back(d.path + ": the 'data' chunk tells more bytes than the file has; the file's end counts");
  return w;
}

std::string WaveHeader(unsigned rate, unsigned channels, unsigned long long dataBytes) {
  // Sizes beyond the fields' 32 bits are cut at their largest value, as players expect.
  const uint32_t data = dataBytes > 0xFFFFFFFFull - 36 ? 0xFFFFFFFFu - 36 : static_cast<uint32_t>(dataBytes);
  std::string h;
  h.reserve(44);
  h += "RIFF";
  put32(h, data + 36);
  h += "WAVEfmt ";
  put32(h, 16);
  put16(h, 1);
  put16(h, channels);
  put32(h, rate);
  put32(h, rate * channels * 2);
  put16(h, channels * 2);
  put16(h, 16);
  h += "data";
  put32(h, data);
  return h;
}

}  // namespace boxweave

namespace boxweave {

std::string PatchWaveHeader(const std::string& path, unsigned rate, unsigned channels, unsigned long long dataBytes) {
  errno = 0;
  std::FILE* f = std::fopen(path.c_str(), "r+b");
  if (!f) return std::strerror(errno ? errno : EIO);
  const std::string h = WaveHeader(rate, channels, dataBytes);
  const bool ok = std::fwrite(h.data(), 1, h.size(), f) == h.size();
  const int err = errno;
  if (std::fclose(f) != 0 || !ok) return std::strerror(err ? err : EIO);
  return "";
}

}  // namespace boxweave
