// Reads a filter module's property list (PiPL) and scripting terminology
// (AETE) from their resource bytes, as a host does before it loads the code.
// Windows layout: little-endian numbers, four-character codes stored as
// native 32-bit numbers (so "8BIM" stands in the file as "MIB8").
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct PiplProperty {
  std::string vendor;  // readable: "8BIM"
  std::string key;     // readable: "kind", "wx86", "8664"...
  int32_t propertyId = 0;
  int32_t length = 0;  // as stored
  std::vector<uint8_t> data;  // the stored length of bytes
  size_t offset = 0;          // where the property starts in the list
};

struct PiplList {
  int16_t marker = 0;
  int32_t version = 0;
  int32_t count = 0;
  std::vector<PiplProperty> properties;
  size_t end = 0;  // offset just past the last property and its padding
};

// Reads the header and every property; a property runs for its length,
// rounded up to a multiple of 4. False with a reason when the bytes end early.
bool parsePipl(const std::vector<uint8_t>& bytes, PiplList* list, std::string* error);

// Four bytes of the file as the readable code (read back to front).
std::string readableCode(const uint8_t* bytes);

// Data helpers: a length-prefixed string, a NUL-terminated string.
std::string piplPascalString(const std::vector<uint8_t>& data);
std::string piplCString(const std::vector<uint8_t>& data, size_t from = 0);
int32_t piplInt32(const std::vector<uint8_t>& data, size_t at);

// The terminology property (hstm). The codes are the four bytes as they stand.
struct PiplTerminology {
  int32_t version = 0;
  std::string classCode;
  std::string eventCode;
  int16_t terminologyId = 0;
  std::string scope;
};

bool parsePiplTerminology(const std::vector<uint8_t>& data, PiplTerminology* terminology);

// ---- scripting terminology ---------------------------------------------------------------------

// Codes are kept as the four bytes stand in the file; the reply and parameter
// types are stored back to front ("llun" for null), the suite and event codes
// not, so the caller compares each in the form it expects.
struct AeteParameter {
  std::string name;
  std::string keyword;
  std::string type;
  std::string description;
  uint16_t flags = 0;
};

struct AeteEvent {
  std::string name;
  std::string description;
  std::string eventClass;
  std::string eventCode;
  std::string replyType;
  std::string replyDescription;
  uint16_t replyFlags = 0;
  std::string directType;
  std::string directDescription;
  uint16_t directFlags = 0;
  std::vector<AeteParameter> parameters;
};

struct AeteSuite {
  std::string name;
  std::string description;
  std::string code;
  uint16_t level = 0;
  uint16_t version = 0;
  std::vector<AeteEvent> events;
  uint16_t classCount = 0;
  uint16_t comparisonCount = 0;
  uint16_t enumerationCount = 0;
};

struct AeteTerminology {
  uint16_t marker = 0;
  uint8_t majorVersion = 0;
  uint8_t minorVersion = 0;
  uint16_t language = 0;
  uint16_t script = 0;
  std::vector<AeteSuite> suites;
  size_t end = 0;  // offset just past the last field read
};

// Reads suites, events and their parameters, packed with no alignment.
// Classes, comparison operators and enumerations are only counted, so reading
// stops after a suite that has any of them; the call fails only when further
// suites follow it.
bool parseAete(const std::vector<uint8_t>& bytes, AeteTerminology* terminology, std::string* error);
