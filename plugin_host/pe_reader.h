// A small reader of Windows module files (PE images) from disk, in standard
// C++ alone, so that the Windows builds can be inspected on any machine: the
// machine type, the exported names, and the bytes of any resource. Also the
// few resource formats the checks look into: dialog templates, bitmap and
// icon headers, icon groups.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

const uint16_t kPeMachineI386 = 0x014C;
const uint16_t kPeMachineAmd64 = 0x8664;

// Standard resource types.
const uint16_t kPeResourceIcon = 3;
const uint16_t kPeResourceBitmap = 2;
const uint16_t kPeResourceDialog = 5;
const uint16_t kPeResourceGroupIcon = 14;
const uint16_t kPeResourceManifest = 24;

struct PeSection {
  std::string name;
  uint32_t virtualAddress = 0;
  uint32_t virtualSize = 0;
  uint32_t rawOffset = 0;
  uint32_t rawSize = 0;
};

struct PeFile {
  std::vector<uint8_t> bytes;
  uint16_t machine = 0;
  bool pe32Plus = false;  // the 64-bit form of the optional header
  std::vector<PeSection> sections;
  // Export table: the names in the order stored (sorted, as the loader wants),
  // and the number of exported functions, names or not.
  std::vector<std::string> exportNames;
  uint32_t exportFunctionCount = 0;
  uint32_t resourceRva = 0;  // 0 when the module has no resources
  uint32_t resourceSize = 0;
};

// A resource type, name or language: by number or by name. Names compare
// without regard to case, as the system's lookup does.
struct PeResourceId {
  bool named = false;
  uint16_t number = 0;
  std::string name;
};

PeResourceId peResourceNumber(uint16_t number);
PeResourceId peResourceName(const std::string& name);

struct PeResourceEntry {
  PeResourceId type;
  PeResourceId name;
  uint16_t language = 0;
  uint32_t dataRva = 0;
  uint32_t size = 0;
};

// Reads and checks the headers; false with a reason when the file is not a PE
// image or a table points outside it.
bool readPeFile(const std::string& path, PeFile* file, std::string* error);
bool parsePeImage(std::vector<uint8_t> bytes, PeFile* file, std::string* error);

// File offset of a relative virtual address, or -1 outside every section.
int64_t peRvaToOffset(const PeFile& file, uint32_t rva);

// Every leaf of the resource tree, in the tree's order.
std::vector<PeResourceEntry> listPeResources(const PeFile& file);

// The bytes of one resource. language < 0 takes the first language there is.
bool findPeResource(const PeFile& file, const PeResourceId& type, const PeResourceId& name, int language,
                    std::vector<uint8_t>* data);

// ---- resource formats -------------------------------------------------------------------------

// A dialog control (classic, not extended, template). Class and text are
// either a name or an ordinal (0x0080 button, 0x0082 static...; for a static
// icon the text is the icon's ordinal).
struct DialogItem {
  uint32_t style = 0;
  uint32_t extendedStyle = 0;
  int16_t x = 0, y = 0, width = 0, height = 0;
  uint16_t id = 0;
  PeResourceId controlClass;
  PeResourceId text;
};

struct DialogTemplate {
  uint32_t style = 0;
  uint32_t extendedStyle = 0;
  int16_t x = 0, y = 0, width = 0, height = 0;
  std::string title;
  uint16_t pointSize = 0;  // when style has DS_SETFONT
  std::string fontName;
  std::vector<DialogItem> items;
};

bool parseDialogTemplate(const std::vector<uint8_t>& data, DialogTemplate* dialog, std::string* error);

// The header of a device-independent bitmap (a BITMAP resource, or an image
// of an icon, whose height counts the colour rows and the mask rows together).
struct DibHeader {
  int32_t width = 0;
  int32_t height = 0;
  uint16_t bitCount = 0;
  uint32_t compression = 0;
};

bool parseDibHeader(const std::vector<uint8_t>& data, DibHeader* header);

struct IconGroupEntry {
  int width = 0;  // 256 where the byte says 0
  int height = 0;
  uint16_t bitCount = 0;
  uint32_t bytes = 0;
  uint16_t iconId = 0;  // the ICON resource with the image
};

bool parseIconGroup(const std::vector<uint8_t>& data, std::vector<IconGroupEntry>* entries);
