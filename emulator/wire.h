// The Gateway's side of the wire: one reader and one writer own the byte
// layout; the flows in eci.cpp, channels.cpp and connection.cpp never touch
// raw bytes.
#ifndef QVAEMU_WIRE_H
#define QVAEMU_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvaemu::wire {

inline constexpr uint32_t kMagic = 0x47617465;  // "Gate"
inline constexpr uint32_t kVersion = 0x10800000;
inline constexpr int32_t kFlowEci = 1;
inline constexpr int32_t kFlowHandshake = 5;
inline constexpr int32_t kFlowException = 6;
inline constexpr int32_t kFlowClose = 10;
inline constexpr int32_t kCallProgram = 1;
inline constexpr int32_t kCallProgramTpn = 12;
inline constexpr int32_t kCallServerList = 9;
inline constexpr size_t kHeaderFixed = 29;  // header bytes besides the name
inline constexpr size_t kNameLengthOffset = 20;
inline constexpr size_t kEntrySize = 70;       // one server-list entry
inline constexpr size_t kChannelFixed = 24;    // channel name, CCSID, entry count
inline constexpr size_t kContainerFixed = 28;  // a container entry before its data

// Container states: every request entry is ADDED; a return flow uses all four.
inline constexpr uint8_t kAdded = 1;
inline constexpr uint8_t kDeleted = 2;
inline constexpr uint8_t kModified = 3;
inline constexpr uint8_t kUnchanged = 4;
inline constexpr uint8_t kBit = 1;
inline constexpr uint8_t kChar = 2;

// Appends big-endian fields to a byte vector.
class Writer {
 public:
  explicit Writer(std::vector<uint8_t>& out) : out_(out) {}
  void u8(uint8_t v) { out_.push_back(v); }
  void i16(int16_t v);
  void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
  void u32(uint32_t v);
  // resize and copy rather than insert: g++ 12 at -O3 takes the insert of
  // a span into an empty vector for an overflow.
  void bytes(std::span<const uint8_t> b) {
    if (b.empty()) return;
    const size_t at = out_.size();
    out_.resize(at + b.size());
    std::memcpy(out_.data() + at, b.data(), b.size());
  }
  void text(const std::string& s) { out_.insert(out_.end(), s.begin(), s.end()); }
  void fill(size_t n, uint8_t v) { out_.insert(out_.end(), n, v); }

 private:
  std::vector<uint8_t>& out_;
};

// Reads big-endian fields from a byte range. Failure is sticky: once a read
// would pass the end, every later read yields zeros and ok() stays false, so a
// parser checks once, at the end.
class Reader {
 public:
  explicit Reader(std::span<const uint8_t> in) : in_(in) {}
  uint8_t u8();
  int16_t i16();
  int32_t i32() { return static_cast<int32_t>(u32()); }
  uint32_t u32();
  // n bytes; empty (and failed) when fewer remain or n is negative.
  std::span<const uint8_t> bytes(int64_t n);
  template <size_t N>
  std::array<char, N> chars() {
    std::array<char, N> a{};
    auto b = bytes(N);
    for (size_t i = 0; i < b.size(); ++i) a[i] = static_cast<char>(b[i]);
    return a;
  }
  bool ok() const { return ok_; }
  size_t remaining() const { return in_.size() - pos_; }

 private:
  std::span<const uint8_t> in_;
  size_t pos_ = 0;
  bool ok_ = true;
};

// A message body in pieces: bytes it owns, and ranges it borrows (a request's
// container data, the cached pattern), so that large data goes out with one
// write and is never copied. Small borrowed ranges are copied instead, which
// keeps the number of pieces down.
class Body {
 public:
  Body() = default;
  Body(std::vector<uint8_t> bytes);  // implicit: a body in one piece
  void append(std::span<const uint8_t> bytes);
  // `keep` holds the range's storage alive until the body has been sent.
  void borrow(std::span<const uint8_t> bytes, std::shared_ptr<const void> keep);
  size_t size() const { return size_; }
  void truncate(size_t n);  // keeps the first n bytes
  std::vector<std::span<const uint8_t>> pieces() const;
  std::vector<uint8_t> flat() const;

 private:
  struct Piece {
    std::vector<uint8_t> own;
    std::span<const uint8_t> view;  // when borrowed
    std::shared_ptr<const void> keep;
    bool borrowed = false;
    std::span<const uint8_t> bytes() const { return borrowed ? view : std::span<const uint8_t>(own); }
  };
  std::vector<Piece> pieces_;
  size_t size_ = 0;
};

// The message header. The record keeps flowQualifier before flowReserved, but
// the wire carries flowReserved in the fourth word and flowQualifier in the
// fifth; encode/decode do the crossing so nothing else has to.
struct Header {
  uint32_t magic = kMagic;
  uint32_t version = kVersion;
  int32_t flowType = 0;
  int32_t flowQualifier = 0;
  int32_t flowReserved = 0;
  std::string name;
  uint8_t headerFlag = 0;
  int32_t dataLength = 0;
};

std::vector<uint8_t> encodeHeader(const Header& h);
// Decodes a whole header (29 + name length bytes). False if the bytes are too
// few for the name length they carry.
bool decodeHeader(std::span<const uint8_t> bytes, Header& h);
// The name length word of a header's first 24 bytes.
uint32_t peekNameLength(std::span<const uint8_t> first24);

// Trims trailing blanks and NULs from a fixed-width text field.
std::string trimField(const char* p, size_t n);
template <size_t N>
std::string trimField(const std::array<char, N>& a) {
  return trimField(a.data(), N);
}

using Name16 = std::array<char, 16>;
// A name NUL-padded to 16 bytes; longer names are cut.
Name16 name16(std::string_view s);

// A container entry. In a request, data is a range of the request body; in a
// return flow it is that too, or storage held by `keep`. The length word is
// size() plus lengthSurplus (non-zero only when a fault lies about it).
struct Container {
  Name16 name{};
  uint8_t state = kAdded;
  uint8_t type = kBit;  // the low byte on the wire
  int32_t ccsid = 0;
  std::span<const uint8_t> data;
  std::shared_ptr<const void> keep;
  // Non-zero: the data is `data` over and over, cut at this many bytes. A
  // large regular payload then goes out from one small block.
  size_t repeatedTo = 0;
  uint32_t lengthSurplus = 0;
  size_t size() const { return repeatedTo != 0 ? repeatedTo : data.size(); }
};
bool carriesData(uint8_t state);  // ADDED and MODIFIED entries are followed by their data

// A request's channel block, or a reply's return flow: the same layout.
struct Channel {
  Name16 name{};  // as it travels: NUL-padded, not terminated at 16
  int32_t ccsid = 0;
  std::vector<Container> containers;
  std::optional<int32_t> announcedCount;  // a fault: an entry count other than containers.size()
};

// An ECI request body, in wire order. Call types 1 and 12 share one layout;
// 9 carries systemCount; any other call type only the always-present fields.
struct EciRequest {
  int32_t callType = 0;
  int32_t extendMode = 0;
  int32_t luwToken = 0;
  int32_t spareInt = 0;
  uint8_t spareByte = 0;
  int32_t systemNameLength = 8;
  std::array<char, 8> systemName{};
  std::array<char, 16> userId{};
  std::array<char, 16> password{};
  std::array<char, 8> programName{};
  std::array<char, 4> transId{};
  std::vector<uint8_t> extraData;
  int32_t commareaLength = 0;
  bool hasRequestDataLength = false;
  int32_t requestDataLength = 0;
  bool hasReplyDataLength = false;
  int32_t replyDataLength = 0;
  std::vector<uint8_t> commarea;   // the bytes that travelled
  std::optional<Channel> channel;  // channel-present byte 0xFF; data ranges point into the body
  int32_t systemCount = 0;
  int16_t timeout = 0;
  uint8_t trailerFlag = 0;
  int32_t extensionMarker = -1;
  std::vector<uint8_t> extension1, extension2;
  int32_t trailerWord = 0;
};

bool isProgramCall(int32_t callType);
bool carriesNoCommarea(int32_t extendMode);  // modes 2 and 4

enum class ParseResult { Ok, Malformed };
// Parses a whole body. Malformed: the body is too short, too long, or holds a
// length, count, flag or state byte that cannot be. The request's container
// data is not copied: it stays valid as long as `body` does.
ParseResult parseEciRequest(std::span<const uint8_t> body, EciRequest& req, std::string* why);

// The reply to a program call (call type 1 or 12).
struct ProgramReply {
  int32_t callType = kCallProgram;
  int32_t luwToken = 0;
  int32_t spareInt = 0;
  int32_t replyRc = 0;
  std::array<char, 4> abendCode{};
  int32_t commareaLength = 0;
  uint8_t lengthPresent = 0xFF;  // 0: the client takes replyDataLength = commareaLength
  int32_t replyDataLength = 0;
  std::vector<uint8_t> data;  // sent unless the request's extend mode is 2 or 4
  bool sendData = true;
  std::optional<Channel> channel;  // the return flow; none: channel-present byte 0
};
// flowOffset, when given, receives where the return flow starts in the body
// (just past the channel-present byte).
Body encodeProgramReply(const ProgramReply& r, size_t* flowOffset = nullptr);

struct ServerListReply {
  int32_t systemCount = 0;
  int32_t replyRc = 0;
  std::vector<uint8_t> entries;  // commareaLength = its size
};
std::vector<uint8_t> encodeServerListReply(const ServerListReply& r);
// Name blank-padded to 8 plus a NUL, description blank-padded to 60 plus a NUL.
void appendServerEntry(std::vector<uint8_t>& out, const std::string& name, const std::string& description);

std::vector<uint8_t> encodeCallTypeOnly(int32_t callType);
std::vector<uint8_t> encodeExceptionBody(int32_t flowType, int32_t reason);

}  // namespace qvaemu::wire

#endif
