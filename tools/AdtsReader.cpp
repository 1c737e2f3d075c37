#include "tools/AdtsReader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"

namespace boxweave {

namespace {

const unsigned kRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr size_t kHeader = 7;
constexpr int kPacketTail = 16;

bool endsWith(const std::string& s, const char* tail) {
  const size_t n = std::strlen(tail);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != tail[i]) return false;
  return true;
}

}  // namespace

void AdtsConfig::AudioSpecificConfig(uint8_t out[2]) const {
  out[0] = static_cast<uint8_t>((objectType << 3) | (rateIndex >> 1));
  out[1] = static_cast<uint8_t>(((rateIndex & 1) << 7) | ((channelConfig & 0xf) << 3));
}

AdtsReader::AdtsReader(size_t block) : _block(std::max<size_t>(block, 1)) {}

AdtsReader::~AdtsReader() {
  if (_file) std::fclose(_file);
}

bool AdtsReader::HandlesPath(const std::string& path) { return endsWith(path, ".aac"); }

bool AdtsReader::fail(const std::string& message) {
  if (_error.empty()) {
    _error = _path + ": " + message;
    LOGE << _error;
  }
  return false;
}

// Seven bytes at p.
bool AdtsReader::parse(const uint8_t* p, Header& h) {
  // Sync word 0xFFF and layer 0; the MPEG version bit and the CRC bit may be either.
  if (p[0] != 0xff || (p[1] & 0xf6) != 0xf0) return false;
  h.crc = !(p[1] & 1);
  h.config.objectType = (p[2] >> 6) + 1u;
  h.config.rateIndex = (p[2] >> 2) & 0xf;
  if (h.config.rateIndex >= 13) return false;
  h.config.rate = kRates[h.config.rateIndex];
  h.config.channelConfig = ((p[2] & 1u) << 2) | (p[3] >> 6);
  h.config.channels = h.config.channelConfig == 7 ? 8 : h.config.channelConfig;
  h.length = ((p[3] & 3u) << 11) | (unsigned(p[4]) << 3) | (p[5] >> 5);
  h.rawBlocks = (p[6] & 3u) + 1;
  h.headerLength = h.crc ? 9 : 7;
  return h.length > h.headerLength;
}

bool AdtsReader::matches(const Header& h) const {
  return h.config.objectType == _config.objectType && h.config.rateIndex == _config.rateIndex &&
         h.config.channelConfig == _config.channelConfig;
}

bool AdtsReader::need(size_t n) {
  if (_end - _begin >= n) return true;
  if (_eof || !_file) return false;
  if (_begin > 0) {
    std::memmove(_buf.data(), _buf.data() + _begin, _end - _begin);
    _bufPos += _begin;
    _end -= _begin;
    _begin = 0;
  }
  // n is at most a frame and a header: the buffer stays small.
  if (_buf.size() < n + _block) _buf.resize(n + _block);
  while (_end < n) {
    const size_t got = std::fread(_buf.data() + _end, 1, _buf.size() - _end, _file);
    if (got == 0) {
      if (std::ferror(_file)) return fail(std::string("read error: ") + std::strerror(errno));
      _eof = true;
      return false;
    }
    _end += got;
  }
  return true;
}

bool AdtsReader::Open(const std::string& path) {
  if (_file) return fail("the reader is open already");
  _path = path;
  _error.clear();
  _file = std::fopen(path.c_str(), "rb");
  if (!_file) return fail(std::string("cannot open: ") + std::strerror(errno));
  // An ID3v2 tag (some tools put one in front): "ID3", version, flags, a 28-bit size in 7-bit bytes.
  if (need(10) && std::memcmp(_buf.data() + _begin, "ID3", 3) == 0) {
    const uint8_t* t = _buf.data() + _begin;
    if (!(t[6] & 0x80) && !(t[7] & 0x80) && !(t[8] & 0x80) && !(t[9] & 0x80)) {
      unsigned long long skip = 10 + ((unsigned long long)t[6] << 21 | t[7] << 14 | t[8] << 7 | t[9]);
      if (t[5] & 0x10) skip += 10;  // footer
      while (skip > 0) {
        const size_t held = _end - _begin;
        const size_t step = held < skip ? held : static_cast<size_t>(skip);
        _begin += step;
        skip -= step;
        if (skip > 0 && !need(1)) break;
      }
    }
  }
  if (Failed()) return false;
  if (!need(kHeader)) {
    if (Failed()) return false;
    if (_bufPos + _end == 0) return fail("empty file");
  }
  Header h;
  if (_end - _begin < kHeader || !parse(_buf.data() + _begin, h)) {
    std::ostringstream m;
    m << "not an ADTS stream: no ADTS header at byte " << _bufPos + _begin;
    return fail(m.str());
  }
  _config = h.config;
  // A sync word alone is two bytes of chance: the frame must be followed by another, or end the file.
  if (need(h.length + kHeader)) {
    Header next;
    if (!parse(_buf.data() + _begin + h.length, next) || !matches(next)) {
      std::ostringstream m;
      m << "not an ADTS stream: the frame at byte " << _bufPos + _begin << " is not followed by another";
      return fail(m.str());
    }
  }
  return !Failed();
}

bool AdtsReader::resync() {
  const unsigned long long from = _bufPos + _begin;
  unsigned long long skipped = 0;
  const auto drop = [&](size_t n) {
    _begin += n;
    skipped += n;
  };
  drop(1);
  bool found = false;
  while (!Failed()) {
    if (_begin == _end && !need(1)) break;
    const uint8_t* p = _buf.data() + _begin;
    const void* ff = std::memchr(p, 0xff, _end - _begin);
    if (!ff) {
      drop(_end - _begin);
      continue;
    }
    drop(static_cast<size_t>(static_cast<const uint8_t*>(ff) - p));
    Header h;
    if (!need(kHeader)) {
      // Fewer bytes left than a header.
      drop(_end - _begin);
      break;
    }
    if (!parse(_buf.data() + _begin, h) || !matches(h)) {
      drop(1);
      continue;
    }
    // The frame must be followed by another one of the stream, or end the file whole.
    if (need(h.length + kHeader)) {
      Header next;
      if (!parse(_buf.data() + _begin + h.length, next) || !matches(next)) {
        drop(1);
        continue;
      }
    } else if (Failed() || _end - _begin < h.length) {
      drop(1);
      continue;
    }
    found = true;
    break;
  }
  if (Failed()) return false;
  ++_resyncs;
  _skipped += skipped;
  if (found) {
    LOGE << _path << ": damaged ADTS frame at byte " << from << ": skipped " << skipped
         << " bytes to the next frame at byte " << _bufPos + _begin;
  } else {
    LOGE << _path << ": damaged ADTS data at byte " << from << ": no frame behind it, " << skipped
         << " bytes to the end skipped";
  }
  return found;
}

bool AdtsReader::Next(AdtsFrame& frame) {
  if (Failed() || !_file) return false;
  for (;;) {
    if (!need(kHeader)) {
      if (Failed()) return false;
      const size_t left = _end - _begin;
      if (left) {
        LOGE << _path << ": " << left << " bytes at byte " << _bufPos + _begin
             << " are too few for an ADTS header; dropped";
        _truncated = true;
        _skipped += left;
        _begin = _end;
      }
      return false;
    }
    Header h;
    if (!parse(_buf.data() + _begin, h) || !matches(h)) {
      if (!resync()) return false;
      continue;
    }
    if (!need(h.length)) {
      if (Failed()) return false;
      const size_t left = _end - _begin;
      LOGE << _path << ": the last ADTS frame at byte " << _bufPos + _begin << " is cut off (" << left << " of "
           << h.length << " bytes); dropped";
      _truncated = true;
      _skipped += left;
      _begin = _end;
      return false;
    }
    const uint8_t* p = _buf.data() + _begin;
    frame = AdtsFrame();
    frame.position = _bufPos + _begin;
    frame.index = _index++;
    frame.sample = _samples;
    frame.blocks = h.rawBlocks;
    frame.hadCrc = h.crc;
    if (h.crc && h.rawBlocks == 1) {
      // The track cuts seven bytes: give the frame the short header, without its CRC.
      const unsigned len = h.length - 2;
      _frame.assign(p, p + kHeader);
      _frame[1] |= 1;
      _frame[3] = static_cast<uint8_t>((_frame[3] & 0xfc) | ((len >> 11) & 3));
      _frame[4] = static_cast<uint8_t>(len >> 3);
      _frame[5] = static_cast<uint8_t>((_frame[5] & 0x1f) | ((len & 7) << 5));
      _frame.insert(_frame.end(), p + 9, p + h.length);
      frame.data = _frame.data();
      frame.size = _frame.size();
    } else {
      frame.data = p;
      frame.size = h.length;
    }
    _samples += static_cast<unsigned long long>(kSamplesPerFrame) * h.rawBlocks;
    _begin += h.length;
    return true;
  }
}

long long AdtsReader::TimeOf(unsigned long long sample) const {
  return kiv::base::MulDiv(static_cast<long long>(sample), 1000000000LL, _config.rate);
}

kiv::stream::Packet* AdtsReader::NextPacket(kiv::stream::IMedia* media) {
  AdtsFrame f;
  if (!Next(f)) return Failed() ? PacketError() : nullptr;
  kiv::stream::Packet* p = kiv::stream::PacketAlloc(static_cast<int>(f.size), 0, kPacketTail);
  if (!p) {
    fail("no packet for " + std::to_string(f.size) + " bytes");
    return PacketError();
  }
  std::memcpy(p->Data(), f.data, f.size);
  p->SetKey(true);
  p->index = f.index;
  p->pts = TimeOf(f.sample);
  p->duration = TimeOf(f.sample + static_cast<unsigned long long>(kSamplesPerFrame) * f.blocks) - p->pts;
  p->media = media;
  return p;
}

bool DescribeAdts(const std::string& path, AdtsDescription& out, std::string& error) {
  AdtsReader r;
  const auto fault = [&](const std::string& what) {
    error = path + ": " + what;
    LOGE << error;
    return false;
  };
  if (!r.Open(path)) {
    error = r.Error();
    return false;
  }
  AdtsDescription d;
  d.path = path;
  d.config = r.Config();
  if (d.config.channelConfig == 0)
    return fault("channel configuration 0 (channels given in the payload) is not supported");
  d.config.AudioSpecificConfig(d.asc);
  AdtsFrame f;
  while (r.Next(f)) {
    if (f.blocks != 1) {
      std::ostringstream m;
      m << "the ADTS frame at byte " << f.position << " holds " << f.blocks
        << " raw data blocks; only one a frame is supported";
      return fault(m.str());
    }
    ++d.frames;
    d.samples += AdtsReader::kSamplesPerFrame;
    d.payloadBytes += f.size - kHeader;
    d.crc = d.crc || f.hadCrc;
  }
  if (r.Failed()) {
    error = r.Error();
    return false;
  }
  if (d.frames == 0) return fault("no complete ADTS frame");
  d.bitrate = static_cast<int>(kiv::base::MulDiv(static_cast<long long>(d.payloadBytes) * 8, d.config.rate,
                                                 static_cast<long long>(d.samples)));
  d.resyncs = r.Resyncs();
  d.skippedBytes = r.SkippedBytes();
  d.truncatedTail = r.TruncatedTail();
  out = std::move(d);
  return true;
}

kiv::stream::IMedia* NewAdtsMedia(const AdtsDescription& d) {
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("aac");
  if (!m) return nullptr;
  const bool ok = m->Set("rate", static_cast<int>(d.config.rate)) &&
                  m->Set("channel", static_cast<int>(d.config.channels)) && m->Set("width", 2) &&
                  m->Set("depth", 16) && m->Set("bitrate", d.bitrate) && m->Set("adtslen", 7) &&
                  m->Set("frmSampNum", static_cast<int>(d.samplesPerFrame)) && m->Extra(d.asc, 2);
  if (!ok) {
    LOGE << "!aac media attributes";
    m->Release();
    return nullptr;
  }
  return m;
}

std::vector<std::string> AdtsWarnings(const AdtsDescription& d) {
  std::vector<std::string> w;
  if (d.resyncs) {
    std::ostringstream m;
    m << d.path << ": " << d.resyncs << " damaged places skipped, " << d.skippedBytes << " bytes left out in all";
    w.push_back(m.str());
  }
  if (d.truncatedTail) w.push_back(d.path + ": the last frame is cut off and is not recorded");
  return w;
}

}  // namespace boxweave
