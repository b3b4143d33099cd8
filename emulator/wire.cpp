#include "wire.h"

namespace qvaemu::wire {

void Writer::i16(int16_t v) {
  const auto u = static_cast<uint16_t>(v);
  out_.push_back(static_cast<uint8_t>(u >> 8));
  out_.push_back(static_cast<uint8_t>(u));
}

void Writer::u32(uint32_t v) {
  out_.push_back(static_cast<uint8_t>(v >> 24));
  out_.push_back(static_cast<uint8_t>(v >> 16));
  out_.push_back(static_cast<uint8_t>(v >> 8));
  out_.push_back(static_cast<uint8_t>(v));
}

uint8_t Reader::u8() {
  auto b = bytes(1);
  return b.empty() ? 0 : b[0];
}

int16_t Reader::i16() {
  auto b = bytes(2);
  if (b.empty()) return 0;
  return static_cast<int16_t>(static_cast<uint16_t>((b[0] << 8) | b[1]));
}

uint32_t Reader::u32() {
  auto b = bytes(4);
  if (b.empty()) return 0;
  return (static_cast<uint32_t>(b[0]) << 24) | (static_cast<uint32_t>(b[1]) << 16) |
         (static_cast<uint32_t>(b[2]) << 8) | static_cast<uint32_t>(b[3]);
}

std::span<const uint8_t> Reader::bytes(int64_t n) {
  // Return early when this reader has already run out.
  if (!ok_ || n < 0 || static_cast<uint64_t>(n) > remaining()) {
    ok_ = false;
    return {};
  }
  auto s = in_.subspan(pos_, static_cast<size_t>(n));
  pos_ += static_cast<size_t>(n);
  return s;
}

std::vector<uint8_t> encodeHeader(const Header& h) {
  std::vector<uint8_t> out;
  out.reserve(kHeaderFixed + h.name.size());
  Writer w(out);
  w.u32(h.magic);
  w.u32(h.version);
  w.i32(h.flowType);
  w.i32(h.flowReserved);  // fourth word: reserved, then the qualifier
  w.i32(h.flowQualifier);
  w.u32(static_cast<uint32_t>(h.name.size()));
  w.text(h.name);
  w.u8(h.headerFlag);
  w.i32(h.dataLength);
  return out;
}

uint32_t peekNameLength(std::span<const uint8_t> first24) {
  Reader r(first24.subspan(kNameLengthOffset, 4));
  return r.u32();
}

bool decodeHeader(std::span<const uint8_t> bytes, Header& h) {
  Reader r(bytes);
  h.magic = r.u32();
  h.version = r.u32();
  h.flowType = r.i32();
  h.flowReserved = r.i32();
  h.flowQualifier = r.i32();
  const uint32_t n = r.u32();
  auto name = r.bytes(n);
  h.name.assign(name.begin(), name.end());
  h.headerFlag = r.u8();
  h.dataLength = r.i32();
  return r.ok();
}

std::string trimField(const char* p, size_t n) {
  while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == '\0')) --n;
  return std::string(p, n);
}

bool isProgramCall(int32_t callType) {
  return callType == kCallProgram || callType == kCallProgramTpn;
}

bool carriesNoCommarea(int32_t extendMode) { return extendMode == 2 || extendMode == 4; }

namespace {

// A flag byte is 0 or 0xFF; anything else means the stream is out of step.
bool readFlag(Reader& r, bool& flag) {
  const uint8_t b = r.u8();
  flag = b == 0xFF;
  return b == 0 || b == 0xFF;
}

std::vector<uint8_t> toVector(std::span<const uint8_t> s) { return {s.begin(), s.end()}; }

}  // namespace

ParseResult parseEciRequest(std::span<const uint8_t> body, EciRequest& req, std::string* why) {
  auto malformed = [why](const char* what) {
    if (why) *why = what;
    return ParseResult::Malformed;
  };
  Reader r(body);
  req.callType = r.i32();
  if (isProgramCall(req.callType)) {
    req.extendMode = r.i32();
    req.luwToken = r.i32();
    req.spareInt = r.i32();
    req.spareByte = r.u8();
    req.systemNameLength = r.i32();
    if (r.ok() && req.systemNameLength != 8) return malformed("server name length is not 8");
    req.systemName = r.chars<8>();
    req.userId = r.chars<16>();
    req.password = r.chars<16>();
    req.programName = r.chars<8>();
    req.transId = r.chars<4>();
    const int32_t extra = r.i32();
    req.extraData = toVector(r.bytes(extra));
    req.commareaLength = r.i32();
    if (r.ok() && req.commareaLength < 0) return malformed("negative commareaLength");
    if (!readFlag(r, req.hasRequestDataLength)) return malformed("bad requestDataLength flag");
    if (req.hasRequestDataLength) req.requestDataLength = r.i32();
    if (!readFlag(r, req.hasReplyDataLength)) return malformed("bad replyDataLength flag");
    if (req.hasReplyDataLength) req.replyDataLength = r.i32();
    if (req.requestDataLength < 0 || req.replyDataLength < 0) return malformed("negative data length");
    if (!carriesNoCommarea(req.extendMode)) {
      const int32_t d = req.requestDataLength > 0 ? req.requestDataLength : req.commareaLength;
      req.commarea = toVector(r.bytes(d));
    }
    if (!readFlag(r, req.hasChannel)) return malformed("bad channel-present byte");
    if (!r.ok()) return malformed("body shorter than its fields");
    if (req.hasChannel) return ParseResult::Channel;
  } else if (req.callType == kCallServerList) {
    req.systemCount = r.i32();
  }
  req.timeout = r.i16();
  req.trailerFlag = r.u8();
  req.extensionMarker = r.i32();
  if (req.extensionMarker != -1) {
    req.extension1 = toVector(r.bytes(r.i32()));
    req.extension2 = toVector(r.bytes(r.i32()));
  }
  req.trailerWord = r.i32();
  if (!r.ok()) return malformed("body shorter than its fields");
  if (r.remaining() != 0) return malformed("body longer than its fields");
  return ParseResult::Ok;
}

std::vector<uint8_t> encodeProgramReply(const ProgramReply& p) {
  std::vector<uint8_t> out;
  Writer w(out);
  w.i32(p.callType);
  w.i32(p.luwToken);
  w.i32(p.spareInt);
  w.i32(p.replyRc);
  w.bytes({reinterpret_cast<const uint8_t*>(p.abendCode.data()), p.abendCode.size()});
  w.i32(p.commareaLength);
  w.u8(p.lengthPresent);
  if (p.lengthPresent != 0) {
    w.u8(0);  // the client skips this byte
    w.i32(p.replyDataLength);
  }
  if (p.sendData) w.bytes(p.data);
  if (p.channelReturn.empty()) {
    w.u8(0);
  } else {
    w.u8(0xFF);
    w.bytes(p.channelReturn);
  }
  return out;
}

std::vector<uint8_t> encodeServerListReply(const ServerListReply& s) {
  std::vector<uint8_t> out;
  Writer w(out);
  w.i32(kCallServerList);
  w.i32(s.systemCount);
  w.i32(s.replyRc);
  w.i32(static_cast<int32_t>(s.entries.size()));
  w.bytes(s.entries);
  return out;
}

void appendServerEntry(std::vector<uint8_t>& out, const std::string& name, const std::string& description) {
  Writer w(out);
  const std::string n = name.substr(0, 8);
  const std::string d = description.substr(0, 60);
  w.text(n);
  w.fill(8 - n.size(), ' ');
  w.u8(0);
  w.text(d);
  w.fill(60 - d.size(), ' ');
  w.u8(0);
}

std::vector<uint8_t> encodeCallTypeOnly(int32_t callType) {
  std::vector<uint8_t> out;
  Writer(out).i32(callType);
  return out;
}

std::vector<uint8_t> encodeExceptionBody(int32_t flowType, int32_t reason) {
  std::vector<uint8_t> out;
  Writer w(out);
  w.i32(flowType);
  w.i32(reason);
  return out;
}

}  // namespace qvaemu::wire
