#include "wire.h"

#include <algorithm>

namespace qvaemu::wire {

namespace {

// Borrowed ranges smaller than this are copied: a copy is cheaper than a piece.
constexpr size_t kSmallestBorrowed = 4096;

}  // namespace

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

Body::Body(std::vector<uint8_t> bytes) : size_(bytes.size()) {
  if (!bytes.empty()) pieces_.push_back(Piece{std::move(bytes), {}, {}, false});
}

void Body::append(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  if (pieces_.empty() || pieces_.back().borrowed) pieces_.push_back(Piece{});
  auto& own = pieces_.back().own;
  own.insert(own.end(), bytes.begin(), bytes.end());
  size_ += bytes.size();
}

void Body::borrow(std::span<const uint8_t> bytes, std::shared_ptr<const void> keep) {
  if (bytes.size() < kSmallestBorrowed) return append(bytes);
  pieces_.push_back(Piece{{}, bytes, std::move(keep), true});
  size_ += bytes.size();
}

void Body::truncate(size_t n) {
  size_t at = 0;
  for (size_t i = 0; i < pieces_.size(); ++i) {
    const size_t len = pieces_[i].bytes().size();
    if (at + len >= n) {
      Piece& p = pieces_[i];
      if (p.borrowed)
        p.view = p.view.first(n - at);
      else
        p.own.resize(n - at);
      pieces_.resize(i + 1);
      size_ = n;
      return;
    }
    at += len;
  }
}

std::vector<std::span<const uint8_t>> Body::pieces() const {
  std::vector<std::span<const uint8_t>> out;
  out.reserve(pieces_.size());
  for (const auto& p : pieces_) out.push_back(p.bytes());
  return out;
}

std::vector<uint8_t> Body::flat() const {
  std::vector<uint8_t> out;
  out.reserve(size_);
  for (const auto& p : pieces_) {
    const auto b = p.bytes();
    out.insert(out.end(), b.begin(), b.end());
  }
  return out;
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

bool isProgramCall(int32_t callType) { return callType == kCallProgram || callType == kCallProgramTpn; }

bool carriesNoCommarea(int32_t extendMode) { return extendMode == 2 || extendMode == 4; }

bool carriesData(uint8_t state) { return state == kAdded || state == kModified; }

Name16 name16(std::string_view s) {
  Name16 n{};
  std::copy_n(s.begin(), std::min(s.size(), n.size()), n.begin());
  return n;
}

namespace {

// A flag byte is 0 or 0xFF; anything else means the stream is out of step.
bool readFlag(Reader& r, bool& flag) {
  const uint8_t b = r.u8();
  flag = b == 0xFF;
  return b == 0 || b == 0xFF;
}

std::vector<uint8_t> toVector(std::span<const uint8_t> s) { return {s.begin(), s.end()}; }

// The channel block of a request: every entry ADDED, its two spare bytes 0.
// Data is not copied; the ranges point into the reader's bytes.
const char* parseChannel(Reader& r, Channel& ch) {
  ch.name = r.chars<16>();
  ch.ccsid = r.i32();
  const int32_t count = r.i32();
  if (!r.ok()) return "body shorter than its fields";
  if (count < 0) return "negative container count";
  // Every entry takes at least its fixed part: a count beyond that is a lie,
  // and must not make us reserve room for it.
  if (static_cast<size_t>(count) > r.remaining() / kContainerFixed) return "more containers than the body holds";
  ch.containers.reserve(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    Container c;
    c.name = r.chars<16>();
    c.state = r.u8();
    const uint8_t spare1 = r.u8();
    const uint8_t spare2 = r.u8();
    c.type = r.u8();
    c.ccsid = r.i32();
    c.data = r.bytes(r.u32());
    if (!r.ok()) return "body shorter than its fields";
    if (c.state != kAdded) return "a request container that is not ADDED";
    if (spare1 != 0 || spare2 != 0) return "a container entry's spare bytes are not zero";
    ch.containers.push_back(std::move(c));
  }
  return nullptr;
}

void appendReturnFlow(Body& out, const Channel& ch) {
  std::vector<uint8_t> bytes;
  Writer w(bytes);
  auto name = [&w](const Name16& n) { w.bytes({reinterpret_cast<const uint8_t*>(n.data()), n.size()}); };
  name(ch.name);
  w.i32(ch.ccsid);
  w.i32(ch.announcedCount.value_or(static_cast<int32_t>(ch.containers.size())));
  for (const auto& c : ch.containers) {
    name(c.name);
    w.u8(c.state);
    w.u8(0);
    w.u8(0);
    w.u8(c.type);
    w.i32(c.ccsid);
    w.u32(static_cast<uint32_t>(c.size()) + c.lengthSurplus);
    if (!carriesData(c.state) || c.size() == 0) continue;
    out.append(bytes);
    bytes.clear();
    for (size_t left = c.size(); left > 0;) {
      const auto part = c.data.first(std::min(left, c.data.size()));
      out.borrow(part, c.keep);
      left -= part.size();
    }
  }
  out.append(bytes);
}

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
    bool hasChannel = false;
    if (!readFlag(r, hasChannel)) return malformed("bad channel-present byte");
    if (!r.ok()) return malformed("body shorter than its fields");
    if (hasChannel) {
      req.channel.emplace();
      if (const char* what = parseChannel(r, *req.channel)) return malformed(what);
    }
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

Body encodeProgramReply(const ProgramReply& p, size_t* flowOffset) {
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
  w.u8(p.channel ? 0xFF : 0);
  Body body(std::move(out));
  if (flowOffset) *flowOffset = body.size();
  if (p.channel) appendReturnFlow(body, *p.channel);
  return body;
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
