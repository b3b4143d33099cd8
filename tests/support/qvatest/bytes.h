// Byte vectors for the tests of every suite: literal hexadecimal vectors,
// big-endian words, and the Gateway messages whose bytes are fixed.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qvatest {

using Bytes = std::vector<uint8_t>;

// "47 61 74 65" or "47617465": hexadecimal digits, blanks ignored.
inline Bytes hex(std::string_view text) {
  Bytes out;
  int pending = -1;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    const int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::toupper(c) - 'A' + 10;
    if (v < 0 || v > 15) throw std::invalid_argument("bad hex digit in test vector");
    if (pending < 0) {
      pending = v;
    } else {
      out.push_back(static_cast<uint8_t>(pending << 4 | v));
      pending = -1;
    }
  }
  if (pending >= 0) throw std::invalid_argument("odd number of hex digits in test vector");
  return out;
}

inline Bytes ascii(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline Bytes fill(size_t count, uint8_t value) { return Bytes(count, value); }

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Bytes 0, 1, 2, ... wrapping at 251, so that a shifted or reordered block
// never matches by chance.
inline Bytes pattern(size_t count, uint8_t seed = 0) {
  Bytes out(count);
  for (size_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>((i + seed) % 251);
  return out;
}

// Empty when the range does not lie within b, so a short message never matches.
inline Bytes slice(const Bytes &b, size_t from, size_t count) {
  if (from > b.size() || count > b.size() - from) return {};
  return Bytes(b.begin() + static_cast<std::ptrdiff_t>(from), b.begin() + static_cast<std::ptrdiff_t>(from + count));
}

inline bool contains(const Bytes &haystack, const Bytes &needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) != haystack.end();
}

inline uint32_t be32(const Bytes &b, size_t off) {
  return (uint32_t{b.at(off)} << 24) | (uint32_t{b.at(off + 1)} << 16) | (uint32_t{b.at(off + 2)} << 8) |
         uint32_t{b.at(off + 3)};
}
inline Bytes be32(uint32_t v) {
  return Bytes{static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
               static_cast<uint8_t>(v)};
}

// ---- Gateway messages -------------------------------------------------------

// A message header: "Gate", version, flow type, a zero word, the qualifier,
// the name and its length, a zero flag byte, the body length.
inline Bytes header(uint32_t flowType, std::string_view name, uint32_t bodyLength, uint32_t qualifier = 0) {
  return cat({hex("47617465 10800000"), be32(flowType), hex("00000000"), be32(qualifier),
              be32(static_cast<uint32_t>(name.size())), ascii(name), hex("00"), be32(bodyLength)});
}

inline Bytes message(uint32_t flowType, std::string_view name, const Bytes &body) {
  return cat({header(flowType, name, static_cast<uint32_t>(body.size())), body});
}

// The 55-byte handshake request, byte for byte: language "en", country "GB".
inline Bytes handshakeRequest() {
  return hex(
      "47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000016"
      "0002 656E 0002 4742 0000000000000000000000000000");
}

// The 33-byte close request, byte for byte: flow type 10, qualifier -1.
inline Bytes closeRequest() {
  return hex("47617465 10800000 0000000A 00000000 FFFFFFFF 00000004 42415345 00 00000000");
}

// Cuts what one connection sent into whole messages by their headers; a
// torn tail comes back as a last, short message.
inline std::vector<Bytes> splitMessages(const Bytes &stream) {
  std::vector<Bytes> out;
  size_t pos = 0;
  while (pos < stream.size()) {
    size_t size = stream.size() - pos;
    if (size >= 24) {
      const size_t n = be32(stream, pos + 20);
      if (size >= 29 + n) size = std::min(size, 29 + n + be32(stream, pos + 25 + n));
    }
    out.push_back(slice(stream, pos, size));
    pos += size;
  }
  return out;
}

}  // namespace qvatest
