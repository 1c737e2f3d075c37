// The rows of IBox::New. A new box class adds its row here.
#include "stream/plugin/mp4/common/BoxFactory.h"

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/common/ThumbBox.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace {

struct BoxCreator {
  unsigned fcc;
  IBox* (*create)(unsigned size);  // only "mdat" uses the size
};

template <class T>
IBox* make(unsigned /*size*/) {
  return new T();
}

// For the one box that takes the header's size at creation ("mdat").
template <class T>
IBox* makeSized(unsigned size) {
  return new T(size);
}

// "wide", "wave", "frma", "chan" and "lpcm" get no row: they are kept and skipped as fake boxes.
constexpr BoxCreator kBoxes[] = {
    {FCC("root"), make<croot>},
    {FCC("ftyp"), make<cftyp>},
    {FCC("moov"), make<cmoov>},
    {FCC("mvhd"), make<cmvhd>},
    {FCC("trak"), make<ctrak>},
    {FCC("tkhd"), make<ctkhd>},
    {FCC("edts"), make<cedts>},
    {FCC("elst"), make<celst>},
    {FCC("mdia"), make<cmdia>},
    {FCC("mdhd"), make<cmdhd>},
    {FCC("hdlr"), make<chdlr>},
    {FCC("udta"), make<cudta>},
    {FCC("uuid"), make<cuuid>},
    {FCC("free"), make<cfree>},
    {FCC("mdat"), makeSized<cmdat>},
    {FCC("QUOR"), make<cQUOR>},
    {FCC("tapt"), make<ctapt>},
    {FCC("clef"), make<cclef>},
    {FCC("prof"), make<cprof>},
    {FCC("enof"), make<cenof>},
    {FCC("mvex"), make<cmvex>},
    {FCC("mehd"), make<cmehd>},
    {FCC("trex"), make<ctrex>},
    {FCC("minf"), make<cminf>},
    {FCC("vmhd"), make<cvmhd>},
    {FCC("smhd"), make<csmhd>},
    {FCC("gmhd"), make<cgmhd>},
    {FCC("gmin"), make<cgmin>},
    {FCC("dinf"), make<cdinf>},
    {FCC("dref"), make<cdref>},
    {FCC("url "), make<curl_>},
    {FCC("alis"), make<calis>},
    {FCC("stsd"), make<cstsd>},
    {FCC("avc1"), make<cavc1>},
    {FCC("hvc1"), make<chvc1>},
    {FCC("jpeg"), make<cjpeg>},
    {FCC("sowt"), make<csowt>},
    {FCC("mp4a"), make<cmp4a>},
    {FCC("text"), make<ctext>},
    {FCC("avcC"), make<cavcC>},
    {FCC("colr"), make<ccolr>},
    {FCC("esds"), make<cesds>},
    {FCC("hvcC"), make<chvcC>},
    {FCC("fmp4"), make<fmp4::cfmp4>},
    {FCC("moof"), make<fmp4::cmoof>},
    {FCC("mfhd"), make<fmp4::cmfhd>},
    {FCC("traf"), make<fmp4::ctraf>},
    {FCC("tfhd"), make<fmp4::ctfhd>},
    {FCC("tfdt"), make<fmp4::ctfdt>},
    {FCC("trun"), make<fmp4::ctrun>},
    {FCC("mfra"), make<fmp4::cmfra>},
    {FCC("tfra"), make<fmp4::ctfra>},
    {FCC("mfro"), make<fmp4::cmfro>},
    {FCC("thum"), make<cthumb>},
    {FCC("stbl"), make<cstbl>},
    {FCC("stts"), make<cstts>},
    {FCC("ctts"), make<cctts>},
    {FCC("stsc"), make<cstsc>},
    {FCC("stsz"), make<cstsz>},
    {FCC("stco"), make<cstco>},
    {FCC("co64"), make<cco64>},
    {FCC("stss"), make<cstss>},
    {FCC("sdtp"), make<csdtp>},
};

}  // namespace

IBox* CreateBox(unsigned fcc, unsigned size) {
  for (const BoxCreator& row : kBoxes)
    if (row.fcc == fcc) return row.create(size);
  LOGE << "unknow box:" << kiv::base::Hex(fcc);
  return new cfakebox(fcc);
}

std::vector<unsigned> BoxCodes() {
  std::vector<unsigned> codes;
  for (const BoxCreator& row : kBoxes) codes.push_back(row.fcc);
  return codes;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
