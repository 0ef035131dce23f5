#include "plugin_host/pe_reader.h"

#include <cctype>
#include <cstdio>
#include <utility>

namespace {

bool inBounds(const std::vector<uint8_t>& bytes, uint64_t offset, uint64_t size) {
  return offset <= bytes.size() && size <= bytes.size() - offset;
}

uint16_t get16(const std::vector<uint8_t>& bytes, uint64_t offset) {
  if (!inBounds(bytes, offset, 2)) return 0;
  return uint16_t(bytes[offset] | (bytes[offset + 1] << 8));
}

uint32_t get32(const std::vector<uint8_t>& bytes, uint64_t offset) {
  if (!inBounds(bytes, offset, 4)) return 0;
  return uint32_t(get16(bytes, offset)) | (uint32_t(get16(bytes, offset + 2)) << 16);
}

bool fail(std::string* error, const std::string& reason) {
  if (error) *error = reason;
  return false;
}

std::string upperCase(std::string text) {
  for (char& c : text) c = char(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Narrows UTF-16 to bytes: resource names and dialog texts here are ASCII.
std::string narrow(const std::vector<uint16_t>& units) {
  std::string text;
  for (uint16_t unit : units) text.push_back(unit < 0x80 ? char(unit) : '?');
  return text;
}

bool sameId(const PeResourceId& a, const PeResourceId& b) {
  if (a.named != b.named) return false;
  return a.named ? upperCase(a.name) == upperCase(b.name) : a.number == b.number;
}

// An entry of a resource directory names its child by number, or by an
// offset (high bit set) to a counted UTF-16 string in the resource section.
PeResourceId resourceEntryId(const PeFile& file, uint64_t base, uint32_t nameField) {
  PeResourceId id;
  if (!(nameField & 0x80000000u)) {
    id.number = uint16_t(nameField);
    return id;
  }
  id.named = true;
  uint64_t at = base + (nameField & 0x7FFFFFFFu);
  uint16_t length = get16(file.bytes, at);
  std::vector<uint16_t> units;
  for (uint16_t i = 0; i < length && inBounds(file.bytes, at + 2 + 2u * i, 2); ++i)
    units.push_back(get16(file.bytes, at + 2 + 2u * i));
  id.name = narrow(units);
  return id;
}

struct DirectoryEntry {
  PeResourceId id;
  uint32_t target;  // offset from the section start; high bit: a subdirectory
};

std::vector<DirectoryEntry> readDirectory(const PeFile& file, uint64_t base, uint64_t directory) {
  std::vector<DirectoryEntry> entries;
  if (!inBounds(file.bytes, directory, 16)) return entries;
  uint32_t count = uint32_t(get16(file.bytes, directory + 12)) + get16(file.bytes, directory + 14);
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t at = directory + 16 + 8u * i;
    if (!inBounds(file.bytes, at, 8)) break;
    entries.push_back({resourceEntryId(file, base, get32(file.bytes, at)), get32(file.bytes, at + 4)});
  }
  return entries;
}

// Reads a dialog template's "sz_Or_Ord" field: 0 (none), 0xFFFF then an
// ordinal, or a NUL-terminated UTF-16 string. Returns the offset past it.
bool readNameOrOrdinal(const std::vector<uint8_t>& data, uint64_t* at, PeResourceId* id) {
  if (!inBounds(data, *at, 2)) return false;
  uint16_t first = get16(data, *at);
  *id = PeResourceId();
  if (first == 0xFFFF) {
    if (!inBounds(data, *at + 2, 2)) return false;
    id->number = get16(data, *at + 2);
    *at += 4;
    return true;
  }
  std::vector<uint16_t> units;
  while (true) {
    if (!inBounds(data, *at, 2)) return false;
    uint16_t unit = get16(data, *at);
    *at += 2;
    if (unit == 0) break;
    units.push_back(unit);
  }
  id->named = true;
  id->name = narrow(units);
  return true;
}

bool readString(const std::vector<uint8_t>& data, uint64_t* at, std::string* text) {
  std::vector<uint16_t> units;
  while (true) {
    if (!inBounds(data, *at, 2)) return false;
    uint16_t unit = get16(data, *at);
    *at += 2;
    if (unit == 0) break;
    units.push_back(unit);
  }
  *text = narrow(units);
  return true;
}

}  // namespace

PeResourceId peResourceNumber(uint16_t number) {
  PeResourceId id;
  id.number = number;
  return id;
}

PeResourceId peResourceName(const std::string& name) {
  PeResourceId id;
  id.named = true;
  id.name = name;
  return id;
}

bool readPeFile(const std::string& path, PeFile* file, std::string* error) {
  FILE* stream = std::fopen(path.c_str(), "rb");
  if (!stream) return fail(error, "cannot open " + path);
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, stream)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
  std::fclose(stream);
  return parsePeImage(std::move(bytes), file, error);
}

bool parsePeImage(std::vector<uint8_t> bytes, PeFile* file, std::string* error) {
  *file = PeFile();
  file->bytes = std::move(bytes);
  const std::vector<uint8_t>& b = file->bytes;
  if (!inBounds(b, 0, 64) || b[0] != 'M' || b[1] != 'Z') return fail(error, "no MZ header");
  uint32_t pe = get32(b, 0x3C);
  if (!inBounds(b, pe, 24) || b[pe] != 'P' || b[pe + 1] != 'E' || b[pe + 2] != 0 || b[pe + 3] != 0)
    return fail(error, "no PE signature");
  uint64_t coff = pe + 4;
  file->machine = get16(b, coff);
  uint16_t sectionCount = get16(b, coff + 2);
  uint16_t optionalSize = get16(b, coff + 16);
  uint64_t optional = coff + 20;
  if (!inBounds(b, optional, optionalSize) || optionalSize < 2) return fail(error, "optional header cut short");
  uint16_t magic = get16(b, optional);
  if (magic != 0x10B && magic != 0x20B) return fail(error, "unknown optional header");
  file->pe32Plus = magic == 0x20B;
  // The data directories follow the fixed fields, which are 24 bytes longer
  // in the 64-bit form.
  uint64_t countField = optional + (file->pe32Plus ? 108 : 92);
  uint64_t directories = countField + 4;
  uint32_t directoryCount = get32(b, countField);
  if (countField + 4 > optional + optionalSize) directoryCount = 0;
  auto directory = [&](uint32_t index, uint32_t* rva, uint32_t* size) {
    *rva = 0;
    *size = 0;
    if (index >= directoryCount || directories + 8u * index + 8 > optional + optionalSize) return;
    *rva = get32(b, directories + 8u * index);
    *size = get32(b, directories + 8u * index + 4);
  };

  uint64_t sectionTable = optional + optionalSize;
  if (!inBounds(b, sectionTable, 40u * sectionCount)) return fail(error, "section table cut short");
  for (uint16_t i = 0; i < sectionCount; ++i) {
    uint64_t at = sectionTable + 40u * i;
    PeSection section;
    for (int c = 0; c < 8 && b[at + c]; ++c) section.name.push_back(char(b[at + c]));
    section.virtualSize = get32(b, at + 8);
    section.virtualAddress = get32(b, at + 12);
    section.rawSize = get32(b, at + 16);
    section.rawOffset = get32(b, at + 20);
    file->sections.push_back(section);
  }

  uint32_t exportRva, exportSize;
  directory(0, &exportRva, &exportSize);
  if (exportRva != 0) {
    int64_t exports = peRvaToOffset(*file, exportRva);
    if (exports < 0 || !inBounds(b, uint64_t(exports), 40)) return fail(error, "export table outside the file");
    file->exportFunctionCount = get32(b, uint64_t(exports) + 20);
    uint32_t nameCount = get32(b, uint64_t(exports) + 24);
    int64_t names = peRvaToOffset(*file, get32(b, uint64_t(exports) + 32));
    for (uint32_t i = 0; i < nameCount; ++i) {
      if (names < 0 || !inBounds(b, uint64_t(names) + 4u * i, 4)) return fail(error, "export names outside the file");
      int64_t name = peRvaToOffset(*file, get32(b, uint64_t(names) + 4u * i));
      if (name < 0) return fail(error, "export name outside the file");
      std::string text;
      for (uint64_t at = uint64_t(name); at < b.size() && b[at]; ++at) text.push_back(char(b[at]));
      file->exportNames.push_back(text);
    }
  }
  directory(2, &file->resourceRva, &file->resourceSize);
  if (file->resourceRva != 0 && peRvaToOffset(*file, file->resourceRva) < 0)
    return fail(error, "resource table outside the file");
  return true;
}

int64_t peRvaToOffset(const PeFile& file, uint32_t rva) {
  for (const PeSection& section : file.sections) {
    uint32_t span = section.virtualSize > section.rawSize ? section.virtualSize : section.rawSize;
    if (rva >= section.virtualAddress && rva - section.virtualAddress < span) {
      uint32_t within = rva - section.virtualAddress;
      // Past the raw data lies zero fill, which has no bytes in the file.
      if (within >= section.rawSize) return -1;
      return int64_t(section.rawOffset) + within;
    }
  }
  return -1;
}

std::vector<PeResourceEntry> listPeResources(const PeFile& file) {
  std::vector<PeResourceEntry> leaves;
  if (file.resourceRva == 0) return leaves;
  int64_t base = peRvaToOffset(file, file.resourceRva);
  if (base < 0) return leaves;
  uint64_t root = uint64_t(base);
  // Three levels: type, name, language; a malformed tree is cut where it
  // stops making sense (a leaf where a directory belongs, or the reverse).
  for (const DirectoryEntry& type : readDirectory(file, root, root)) {
    if (!(type.target & 0x80000000u)) continue;
    for (const DirectoryEntry& name : readDirectory(file, root, root + (type.target & 0x7FFFFFFFu))) {
      if (!(name.target & 0x80000000u)) continue;
      for (const DirectoryEntry& language : readDirectory(file, root, root + (name.target & 0x7FFFFFFFu))) {
        if (language.target & 0x80000000u) continue;
        uint64_t data = root + language.target;
        if (!inBounds(file.bytes, data, 16)) continue;
        PeResourceEntry entry;
        entry.type = type.id;
        entry.name = name.id;
        entry.language = language.id.number;
        entry.dataRva = get32(file.bytes, data);
        entry.size = get32(file.bytes, data + 4);
        leaves.push_back(entry);
      }
    }
  }
  return leaves;
}

bool findPeResource(const PeFile& file, const PeResourceId& type, const PeResourceId& name, int language,
                    std::vector<uint8_t>* data) {
  for (const PeResourceEntry& entry : listPeResources(file)) {
    if (!sameId(entry.type, type) || !sameId(entry.name, name)) continue;
    if (language >= 0 && entry.language != language) continue;
    int64_t offset = peRvaToOffset(file, entry.dataRva);
    if (offset < 0 || !inBounds(file.bytes, uint64_t(offset), entry.size)) return false;
    data->assign(file.bytes.begin() + offset, file.bytes.begin() + offset + entry.size);
    return true;
  }
  return false;
}

bool parseDialogTemplate(const std::vector<uint8_t>& data, DialogTemplate* dialog, std::string* error) {
  *dialog = DialogTemplate();
  if (!inBounds(data, 0, 18)) return fail(error, "dialog template cut short");
  if (get16(data, 0) == 1 && get16(data, 2) == 0xFFFF) return fail(error, "extended dialog templates are not read");
  dialog->style = get32(data, 0);
  dialog->extendedStyle = get32(data, 4);
  uint16_t itemCount = get16(data, 8);
  dialog->x = int16_t(get16(data, 10));
  dialog->y = int16_t(get16(data, 12));
  dialog->width = int16_t(get16(data, 14));
  dialog->height = int16_t(get16(data, 16));
  uint64_t at = 18;
  PeResourceId menu, windowClass;
  if (!readNameOrOrdinal(data, &at, &menu) || !readNameOrOrdinal(data, &at, &windowClass) ||
      !readString(data, &at, &dialog->title))
    return fail(error, "dialog header cut short");
  const uint32_t kSetFont = 0x40;  // DS_SETFONT
  if (dialog->style & kSetFont) {
    if (!inBounds(data, at, 2)) return fail(error, "dialog font cut short");
    dialog->pointSize = get16(data, at);
    at += 2;
    if (!readString(data, &at, &dialog->fontName)) return fail(error, "dialog font cut short");
  }
  for (uint16_t i = 0; i < itemCount; ++i) {
    at = (at + 3) & ~uint64_t(3);  // each item starts on a 4-byte boundary
    if (!inBounds(data, at, 18)) return fail(error, "dialog item cut short");
    DialogItem item;
    item.style = get32(data, at);
    item.extendedStyle = get32(data, at + 4);
    item.x = int16_t(get16(data, at + 8));
    item.y = int16_t(get16(data, at + 10));
    item.width = int16_t(get16(data, at + 12));
    item.height = int16_t(get16(data, at + 14));
    item.id = get16(data, at + 16);
    at += 18;
    if (!readNameOrOrdinal(data, &at, &item.controlClass) || !readNameOrOrdinal(data, &at, &item.text))
      return fail(error, "dialog item cut short");
    if (!inBounds(data, at, 2)) return fail(error, "dialog item cut short");
    at += 2 + get16(data, at);  // creation data, unused here
    dialog->items.push_back(item);
  }
  return true;
}

bool parseDibHeader(const std::vector<uint8_t>& data, DibHeader* header) {
  if (!inBounds(data, 0, 40) || get32(data, 0) < 40) return false;
  header->width = int32_t(get32(data, 4));
  header->height = int32_t(get32(data, 8));
  header->bitCount = get16(data, 14);
  header->compression = get32(data, 16);
  return true;
}

bool parseIconGroup(const std::vector<uint8_t>& data, std::vector<IconGroupEntry>* entries) {
  entries->clear();
  if (!inBounds(data, 0, 6) || get16(data, 0) != 0 || get16(data, 2) != 1) return false;
  uint16_t count = get16(data, 4);
  if (!inBounds(data, 6, 14u * count)) return false;
  for (uint16_t i = 0; i < count; ++i) {
    uint64_t at = 6 + 14u * i;
    IconGroupEntry entry;
    entry.width = data[at] ? data[at] : 256;
    entry.height = data[at + 1] ? data[at + 1] : 256;
    entry.bitCount = get16(data, at + 6);
    entry.bytes = get32(data, at + 8);
    entry.iconId = get16(data, at + 12);
    entries->push_back(entry);
  }
  return true;
}
