#include "plugin_host/pipl_reader.h"

namespace {

bool fail(std::string* error, const std::string& reason) {
  if (error) *error = reason;
  return false;
}

// A cursor over the bytes that remembers whether any read ran past the end.
struct Reader {
  const std::vector<uint8_t>& bytes;
  size_t at = 0;
  bool ok = true;

  bool has(size_t size) {
    if (at > bytes.size() || size > bytes.size() - at) ok = false;
    return ok;
  }
  uint8_t u8() {
    if (!has(1)) return 0;
    return bytes[at++];
  }
  uint16_t u16() {
    if (!has(2)) return 0;
    uint16_t v = uint16_t(bytes[at] | (bytes[at + 1] << 8));
    at += 2;
    return v;
  }
  uint32_t u32() {
    uint32_t low = u16();
    return low | (uint32_t(u16()) << 16);
  }
  std::string raw(size_t size) {
    if (!has(size)) return std::string();
    std::string text(bytes.begin() + long(at), bytes.begin() + long(at + size));
    at += size;
    return text;
  }
  std::string pascal() { return raw(u8()); }
};

}  // namespace

std::string readableCode(const uint8_t* bytes) {
  return std::string{char(bytes[3]), char(bytes[2]), char(bytes[1]), char(bytes[0])};
}

bool parsePipl(const std::vector<uint8_t>& bytes, PiplList* list, std::string* error) {
  *list = PiplList();
  Reader in{bytes};
  list->marker = int16_t(in.u16());
  list->version = int32_t(in.u32());
  list->count = int32_t(in.u32());
  if (!in.ok) return fail(error, "property list header cut short");
  if (list->count < 0) return fail(error, "negative property count");
  for (int32_t i = 0; i < list->count; ++i) {
    PiplProperty property;
    property.offset = in.at;
    if (!in.has(16)) return fail(error, "property " + std::to_string(i + 1) + " header cut short");
    property.vendor = readableCode(&bytes[in.at]);
    property.key = readableCode(&bytes[in.at + 4]);
    in.at += 8;
    property.propertyId = int32_t(in.u32());
    property.length = int32_t(in.u32());
    if (property.length < 0) return fail(error, "property " + property.key + " has a negative length");
    // Hosts differ on whether the stored length is padded; stepping by the
    // padded length reads both forms.
    size_t padded = (size_t(property.length) + 3) & ~size_t(3);
    if (!in.has(padded)) return fail(error, "property " + property.key + " runs past the end");
    property.data.assign(bytes.begin() + long(in.at), bytes.begin() + long(in.at + size_t(property.length)));
    in.at += padded;
    list->properties.push_back(property);
  }
  list->end = in.at;
  return true;
}

std::string piplPascalString(const std::vector<uint8_t>& data) {
  if (data.empty()) return std::string();
  size_t length = data[0];
  if (length > data.size() - 1) length = data.size() - 1;
  return std::string(data.begin() + 1, data.begin() + 1 + long(length));
}

std::string piplCString(const std::vector<uint8_t>& data, size_t from) {
  std::string text;
  for (size_t i = from; i < data.size() && data[i]; ++i) text.push_back(char(data[i]));
  return text;
}

int32_t piplInt32(const std::vector<uint8_t>& data, size_t at) {
  if (at + 4 > data.size()) return 0;
  return int32_t(uint32_t(data[at]) | (uint32_t(data[at + 1]) << 8) | (uint32_t(data[at + 2]) << 16) |
                 (uint32_t(data[at + 3]) << 24));
}

bool parsePiplTerminology(const std::vector<uint8_t>& data, PiplTerminology* terminology) {
  *terminology = PiplTerminology();
  Reader in{data};
  terminology->version = int32_t(in.u32());
  terminology->classCode = in.raw(4);
  terminology->eventCode = in.raw(4);
  terminology->terminologyId = int16_t(in.u16());
  if (!in.ok) return false;
  terminology->scope = piplCString(data, in.at);
  return in.at + terminology->scope.size() < data.size();  // the terminator must be there
}

bool parseAete(const std::vector<uint8_t>& bytes, AeteTerminology* terminology, std::string* error) {
  *terminology = AeteTerminology();
  Reader in{bytes};
  terminology->marker = in.u16();
  terminology->majorVersion = in.u8();
  terminology->minorVersion = in.u8();
  terminology->language = in.u16();
  terminology->script = in.u16();
  uint16_t suiteCount = in.u16();
  if (!in.ok) return fail(error, "terminology header cut short");
  for (uint16_t s = 0; s < suiteCount; ++s) {
    AeteSuite suite;
    suite.name = in.pascal();
    suite.description = in.pascal();
    suite.code = in.raw(4);
    suite.level = in.u16();
    suite.version = in.u16();
    uint16_t eventCount = in.u16();
    for (uint16_t e = 0; e < eventCount && in.ok; ++e) {
      AeteEvent event;
      event.name = in.pascal();
      event.description = in.pascal();
      event.eventClass = in.raw(4);
      event.eventCode = in.raw(4);
      event.replyType = in.raw(4);
      event.replyDescription = in.pascal();
      event.replyFlags = in.u16();
      event.directType = in.raw(4);
      event.directDescription = in.pascal();
      event.directFlags = in.u16();
      uint16_t parameterCount = in.u16();
      for (uint16_t p = 0; p < parameterCount && in.ok; ++p) {
        AeteParameter parameter;
        parameter.name = in.pascal();
        parameter.keyword = in.raw(4);
        parameter.type = in.raw(4);
        parameter.description = in.pascal();
        parameter.flags = in.u16();
        event.parameters.push_back(parameter);
      }
      suite.events.push_back(event);
    }
    suite.classCount = in.u16();
    suite.comparisonCount = in.u16();
    suite.enumerationCount = in.u16();
    if (!in.ok) return fail(error, "suite " + std::to_string(s + 1) + " cut short");
    terminology->suites.push_back(suite);
    if (suite.classCount || suite.comparisonCount || suite.enumerationCount) {
      if (s + 1 < suiteCount) return fail(error, "suite with classes or enumerations: later suites not read");
      break;
    }
  }
  terminology->end = in.at;
  return true;
}
