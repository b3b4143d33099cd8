#include "json.h"

namespace qvacall {

std::string jsonString(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out = "\"";
  for (char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += c;
    } else if (byte >= 0x20 && byte < 0x7F) {
      out += c;
    } else {
      out += "\\u00";
      out += kDigits[byte >> 4];
      out += kDigits[byte & 0xF];
    }
  }
  return out + "\"";
}

std::string hexDigits(const uint8_t *data, size_t length) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(length * 2);
  for (size_t i = 0; i < length; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 0xF];
  }
  return out;
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!empty_.empty()) {
    if (!empty_.back()) out_ += ',';
    empty_.back() = false;
  }
}

JsonWriter &JsonWriter::beginObject() {
  beforeValue();
  out_ += '{';
  empty_.push_back(true);
  return *this;
}

JsonWriter &JsonWriter::endObject() {
  out_ += '}';
  empty_.pop_back();
  return *this;
}

JsonWriter &JsonWriter::beginArray() {
  beforeValue();
  out_ += '[';
  empty_.push_back(true);
  return *this;
}

JsonWriter &JsonWriter::endArray() {
  out_ += ']';
  empty_.pop_back();
  return *this;
}

JsonWriter &JsonWriter::key(std::string_view name) {
  beforeValue();
  out_ += jsonString(name);
  out_ += ':';
  afterKey_ = true;
  return *this;
}

JsonWriter &JsonWriter::string(std::string_view bytes) {
  beforeValue();
  out_ += jsonString(bytes);
  return *this;
}

JsonWriter &JsonWriter::number(long long value) {
  beforeValue();
  out_ += std::to_string(value);
  return *this;
}

JsonWriter &JsonWriter::null() {
  beforeValue();
  out_ += "null";
  return *this;
}

}  // namespace qvacall
