// A small JSON writer for qva-call's --json output: one object, built in
// memory, keys and values in the order written. Strings are byte strings:
// printable ASCII stands as it is, a quote and a backslash are escaped, and
// every other byte is written \u00XX, so a byte maps to the code point of the
// same value and the output is plain ASCII whatever the data hold.
#ifndef QVA_CLI_JSON_H
#define QVA_CLI_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvacall {

class JsonWriter {
 public:
  JsonWriter &beginObject();
  JsonWriter &endObject();
  JsonWriter &beginArray();
  JsonWriter &endArray();
  JsonWriter &key(std::string_view name);  // the next value's name, inside an object
  JsonWriter &string(std::string_view bytes);
  JsonWriter &number(long long value);
  JsonWriter &null();

  // key() and a value in one.
  template <typename Value>
  JsonWriter &field(std::string_view name, const Value &value) {
    key(name);
    return write(value);
  }

  const std::string &text() const { return out_; }

 private:
  JsonWriter &write(std::string_view bytes) { return string(bytes); }
  JsonWriter &write(const std::string &bytes) { return string(bytes); }
  JsonWriter &write(const char *bytes) { return string(bytes); }
  JsonWriter &write(long long value) { return number(value); }
  JsonWriter &write(int value) { return number(value); }
  JsonWriter &write(unsigned value) { return number(value); }
  JsonWriter &write(size_t value) { return number(static_cast<long long>(value)); }
  JsonWriter &write(std::nullptr_t) { return null(); }

  void beforeValue();
  std::string out_;
  std::vector<bool> empty_;  // per open object or array: nothing in it yet
  bool afterKey_ = false;
};

// The JSON string literal of the bytes, quotes included.
std::string jsonString(std::string_view bytes);

// Upper-case hex digits, two a byte, nothing between.
std::string hexDigits(const uint8_t *data, size_t length);

}  // namespace qvacall

#endif
