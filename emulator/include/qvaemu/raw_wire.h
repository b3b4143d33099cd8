// Gateway messages built and read field by field, for the clients that talk
// to a Gateway over a plain socket with nothing in between: the emulator's
// tests and the benchmarks' yardstick clients. It shares no code with the
// client library, nor with the emulator's own reader and writer, so that a
// mistake in either shows against it.
#ifndef QVAEMU_RAW_WIRE_H
#define QVAEMU_RAW_WIRE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvaraw {

using Bytes = std::vector<uint8_t>;

void put32(Bytes &out, uint32_t v);
uint32_t get32(const uint8_t *p);

// A message header: "Gate", version, flow type, a zero word, the qualifier,
// the name and its length, a zero flag byte, the body length.
Bytes header(uint32_t flowType, std::string_view name, uint32_t bodyLength, uint32_t qualifier = 0);
Bytes message(uint32_t flowType, std::string_view name, const Bytes &body);
// The 55-byte handshake request: language "en", country "GB".
Bytes handshakeRequest();
// Bytes of a header whose name has nameLength characters, and the offset of
// its body length.
constexpr size_t headerSize(size_t nameLength) { return 29 + nameLength; }
constexpr size_t bodyLengthAt(size_t nameLength) { return 25 + nameLength; }

// A fixed-width text field, blank padded; names are NUL padded to 16 bytes,
// not terminated when they fill them.
Bytes field(std::string_view text, size_t width, uint8_t pad = ' ');
Bytes name16(std::string_view name);

// One program call, field by field.
struct Call {
  int32_t callType = 1, extendMode = 0, luwToken = 0;
  std::string system = "QVADEMO", user, password, program = "ECHO", transId;
  Bytes commarea;
  int32_t commareaLength = -1;  // -1: the size of commarea
  int32_t send = 0, recv = 0;   // requestDataLength, replyDataLength; 0: flag byte 00
  uint16_t timeout = 0;
  Bytes channelBlock;  // non-empty: channel-present byte 0xFF, then these bytes
  // Extend modes 2 (commit) and 4 (backout) carry no COMMAREA either way.
  bool withData() const { return extendMode != 2 && extendMode != 4; }
};
// The whole request, header and body.
Bytes request(const Call &call);
// Offset of the COMMAREA in a request without a channel.
inline constexpr size_t kCommareaOffset = 32 + 83;
Bytes listRequest(int32_t capacity);

inline constexpr uint8_t kAdded = 1, kDeleted = 2, kModified = 3, kUnchanged = 4;
inline constexpr uint8_t kBit = 1, kChar = 2;

// A container entry: name, state, two zero bytes, type, CCSID, the length
// word, then `data` (pass none for an entry that carries no data).
Bytes entry(std::string_view name, uint8_t state, uint8_t type, int32_t ccsid, uint32_t length, const Bytes &data = {});
// An entry followed by all of its data.
Bytes entry(std::string_view name, uint8_t state, uint8_t type, int32_t ccsid, const Bytes &data);
// A request's channel block or a reply's return flow: name, CCSID, the entry
// count (by default the number of entries), the entries.
Bytes channel(std::string_view name, int32_t ccsid, const std::vector<Bytes> &entries,
              std::optional<int32_t> count = std::nullopt);

// The body of the reply to a program call; flow: what follows the
// channel-present byte.
struct ProgramReply {
  int32_t callType = 0, luwToken = 0, replyRc = 0, commareaLength = 0, replyDataLength = 0;
  std::string abendCode;
  Bytes data, flow;
  uint8_t channelPresent = 0;
};
// withData: false for extend modes 2 and 4. False when the body is cut short.
bool parseProgramReply(const uint8_t *body, size_t size, ProgramReply &reply, bool withData);

// A return flow read entry by entry; data points into the flow.
struct FlowEntry {
  std::string name;  // without the padding
  uint8_t state = 0, type = 0;
  int32_t ccsid = 0;
  uint32_t length = 0;
  const uint8_t *data = nullptr;  // null for an entry without data
};
struct Flow {
  std::string channelName;
  int32_t ccsid = 0;
  std::vector<FlowEntry> entries;
};
// False when the flow is cut short or has bytes past its last entry.
bool parseFlow(const Bytes &flow, Flow &out);

// A TCP connection with the options the library sets on its own (keep-alive,
// no delay); the descriptor, or -1 with *error set.
int connectTo(const char *address, uint16_t port, std::string *error);
// connectTo, then the handshake and its reply read whole; the descriptor,
// or -1 with *error set.
int openSession(const char *address, uint16_t port, std::string *error);
// Whole buffers, retried after EINTR and short transfers.
bool sendAll(int fd, const uint8_t *data, size_t length);
bool recvAll(int fd, uint8_t *data, size_t length);

}  // namespace qvaraw

#endif
