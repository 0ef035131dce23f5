// The Windows modules as a host sees them before loading any code: the
// property list and terminology byte for byte, and the
// dialogs, bitmaps, icons and manifests the code and the system load. The
// expected bytes are built here from the published layout, independently of
// the resource script. Also the dialogs' platform-free arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "host/dialog_layout.h"
#include "plugin_host/pe_reader.h"

namespace {

const int kEnglishUS = 1033;
const uint16_t kTerminologyId = 16000;

// ---- expected bytes ----------------------------------------------------------------------------

struct Bytes {
  std::vector<uint8_t> v;
  void u8(uint8_t x) { v.push_back(x); }
  void u16(uint16_t x) {
    u8(uint8_t(x));
    u8(uint8_t(x >> 8));
  }
  void u32(uint32_t x) {
    u16(uint16_t(x));
    u16(uint16_t(x >> 16));
  }
  void raw(const std::string& s) { v.insert(v.end(), s.begin(), s.end()); }
  // A code read by the host as a native 32-bit number stands back to front.
  void reversed(const std::string& code) { raw(std::string(code.rbegin(), code.rend())); }
  void pascal(const std::string& s) {
    u8(uint8_t(s.size()));
    raw(s);
  }
  void cString(const std::string& s) {
    raw(s);
    u8(0);
  }
};

// One property: header, then data zero-filled to its stated length.
void addProperty(Bytes& list, const std::string& key, uint32_t length, const Bytes& data) {
  ASSERT_LE(data.v.size(), length) << key;
  list.reversed("8BIM");
  list.reversed(key);
  list.u32(0);
  list.u32(length);
  std::vector<uint8_t> padded = data.v;
  padded.resize(length, 0);
  list.v.insert(list.v.end(), padded.begin(), padded.end());
}

std::vector<uint8_t> expectedPipl(const std::string& entryKey) {
  Bytes list;
  list.u16(1);
  list.u32(0);
  list.u32(11);
  Bytes kind, name, category, version, entry, maxSize, terminology, mode, narrow, wide, cases;
  kind.reversed("8BFM");
  name.pascal("Mendaris K");
  category.pascal("Tawny Quince");
  version.u32(0x00040000);
  entry.cString("PluginMain");
  maxSize.u32(2000000);
  maxSize.u32(2000000);
  terminology.u32(0);
  terminology.raw("tqmK");
  terminology.raw("tqmK");
  terminology.u16(kTerminologyId);
  terminology.cString("Tawny Quince Mendaris K");
  mode.u8(0x10);
  narrow.cString("in (PSHOP_ImageMode, RGBMode,  RGB48Mode, RGB96Mode) ");
  wide.cString(
      "( in (PSHOP_ImageMode, RGBMode, GrayScaleMode, RGB48Mode, Gray16Mode, Gray32Mode, RGB96Mode) ) && "
      "(PSHOP_ImageMode !=  MultichannelMode) ");
  for (int filterCase = 1; filterCase <= 7; ++filterCase) {
    cases.u8(1);  // inputHandling
    cases.u8(1);  // outputHandling
    cases.u8(1);  // flags1
    cases.u8(0);  // flags2
  }
  addProperty(list, "kind", 4, kind);
  addProperty(list, "name", 12, name);
  addProperty(list, "catg", 16, category);
  addProperty(list, "vers", 4, version);
  addProperty(list, entryKey, 12, entry);
  addProperty(list, "ms32", 8, maxSize);
  addProperty(list, "hstm", 44, terminology);
  addProperty(list, "mode", 4, mode);
  addProperty(list, "enbl", 56, narrow);
  addProperty(list, "enbl", 140, wide);
  addProperty(list, "fici", 28, cases);
  return list.v;
}

std::vector<uint8_t> expectedAete() {
  Bytes t;
  t.u16(1);
  t.u8(1);
  t.u8(0);
  t.u16(0);
  t.u16(0);
  t.u16(1);
  t.pascal("Tawny Quince");
  t.pascal("Mendaris K");
  t.raw("tqmK");
  t.u16(1);
  t.u16(1);
  t.u16(1);
  t.pascal("Mendaris K");
  t.pascal("Fills in transparent areas");
  t.raw("tqmK");
  t.raw("tqmK");
  t.reversed("null");
  t.u8(0);
  t.u16(0);
  t.reversed("#ImR");
  t.u8(0);
  t.u16(0xB000);
  for (int count = 0; count < 4; ++count) t.u16(0);  // parameters, classes, comparisons, enumerations
  return t.v;
}

// Where two byte strings first differ, for a readable failure.
std::string firstDifference(const std::vector<uint8_t>& got, const std::vector<uint8_t>& want) {
  size_t n = std::min(got.size(), want.size());
  for (size_t i = 0; i < n; ++i)
    if (got[i] != want[i]) {
      char text[96];
      std::snprintf(text, sizeof text, "first difference at offset %zu: 0x%02X, expected 0x%02X", i, got[i], want[i]);
      return text;
    }
  if (got.size() != want.size())
    return "sizes differ: " + std::to_string(got.size()) + ", expected " + std::to_string(want.size());
  return "equal";
}

// ---- the two modules ---------------------------------------------------------------------------

struct ModuleCase {
  const char* label;
  const char* path;
  const char* entryKey;
};

const ModuleCase kModules[] = {
    {"win64", MENDARIS_SOURCE_DIR "/build/win64/MendarisK.8bf", "8664"},
    {"win32", MENDARIS_SOURCE_DIR "/build/win32/MendarisK.8bf", "wx86"},
};

// Names the case in test listings (test names must not carry addresses).
void PrintTo(const ModuleCase& c, std::ostream* out) { *out << c.label; }

class WindowsModule : public ::testing::TestWithParam<ModuleCase> {
 protected:
  void SetUp() override {
    const ModuleCase& c = GetParam();
    FILE* probe = std::fopen(c.path, "rb");
    if (!probe) GTEST_SKIP() << c.path << " is not built";
    std::fclose(probe);
    std::string error;
    ASSERT_TRUE(readPeFile(c.path, &module, &error)) << error;
  }

  std::vector<uint8_t> resource(const PeResourceId& type, const PeResourceId& name, int language = -1) {
    std::vector<uint8_t> data;
    EXPECT_TRUE(findPeResource(module, type, name, language, &data))
        << "missing resource " << (name.named ? name.name : std::to_string(name.number));
    return data;
  }

  PeFile module;
};

TEST_P(WindowsModule, PropertyListMatchesLayoutByteForByte) {
  std::vector<uint8_t> pipl = resource(peResourceName("PIPL"), peResourceNumber(kTerminologyId), kEnglishUS);
  std::vector<uint8_t> want = expectedPipl(GetParam().entryKey);
  ASSERT_EQ(want.size(), 514u);
  EXPECT_EQ(pipl.size(), 514u);
  EXPECT_TRUE(pipl == want) << firstDifference(pipl, want);
}

TEST_P(WindowsModule, TerminologyMatchesLayoutByteForByte) {
  std::vector<uint8_t> aete = resource(peResourceName("AETE"), peResourceNumber(kTerminologyId), kEnglishUS);
  std::vector<uint8_t> want = expectedAete();
  ASSERT_EQ(want.size(), 112u);
  EXPECT_TRUE(aete == want) << firstDifference(aete, want);
}

// ---- dialogs -----------------------------------------------------------------------------------

const uint32_t kWsPopup = 0x80000000u, kWsChild = 0x40000000u, kWsVisible = 0x10000000u;
const uint32_t kWsCaption = 0x00C00000u, kWsSysMenu = 0x00080000u, kDsModalFrame = 0x80u, kDsSetFont = 0x40u;
const uint16_t kButtonClass = 0x80, kStaticClass = 0x82;
const uint32_t kSsTypeMask = 0x1F, kSsLeft = 0x0, kSsCenter = 0x1, kSsIcon = 0x3;
const uint32_t kBsTypeMask = 0x0F, kBsPushButton = 0x0, kBsDefPushButton = 0x1;

struct ExpectedItem {
  uint16_t id;
  uint16_t controlClass;
  uint32_t kind;  // SS_ or BS_ type
  int16_t x, y, width, height;
  bool textIsOrdinal;
  uint16_t ordinal;  // the icon's resource id
  const char* text;
  bool visible;
};

// The system takes a predefined class by its ordinal or by its name alike.
bool isControlClass(const PeResourceId& controlClass, uint16_t ordinal) {
  if (!controlClass.named) return controlClass.number == ordinal;
  std::string name = controlClass.name;
  for (char& c : name) c = char(std::toupper(static_cast<unsigned char>(c)));
  return name == (ordinal == kButtonClass ? "BUTTON" : ordinal == kStaticClass ? "STATIC" : "");
}

void checkDialog(const std::vector<uint8_t>& data, const char* title, int width, int height,
                 const std::vector<ExpectedItem>& items) {
  DialogTemplate dialog;
  std::string error;
  ASSERT_TRUE(parseDialogTemplate(data, &dialog, &error)) << error;
  EXPECT_EQ(dialog.title, title);
  EXPECT_EQ(dialog.width, width) << title;
  EXPECT_EQ(dialog.height, height) << title;
  uint32_t frame = kWsPopup | kWsCaption | kWsSysMenu | kDsModalFrame | kDsSetFont;
  EXPECT_EQ(dialog.style & frame, frame) << title << ": a modal frame with caption and system menu";
  EXPECT_EQ(dialog.pointSize, 8) << title;
  EXPECT_EQ(dialog.fontName, "MS Sans Serif") << title;
  ASSERT_EQ(dialog.items.size(), items.size()) << title;
  for (const ExpectedItem& want : items) {
    // Ids of -1 repeat, so a control is identified by its id and its kind.
    auto found = std::find_if(dialog.items.begin(), dialog.items.end(), [&](const DialogItem& item) {
      uint32_t mask = want.controlClass == kButtonClass ? kBsTypeMask : kSsTypeMask;
      return item.id == want.id && isControlClass(item.controlClass, want.controlClass) &&
             (item.style & mask) == want.kind;
    });
    ASSERT_NE(found, dialog.items.end()) << title << ": control " << want.id;
    std::string where = std::string(title) + " control " + std::to_string(want.id);
    EXPECT_EQ(found->x, want.x) << where;
    EXPECT_EQ(found->y, want.y) << where;
    EXPECT_EQ(found->width, want.width) << where;
    EXPECT_EQ(found->height, want.height) << where;
    EXPECT_TRUE(found->style & kWsChild) << where;
    EXPECT_EQ((found->style & kWsVisible) != 0, want.visible) << where;
    if (want.textIsOrdinal) {
      EXPECT_FALSE(found->text.named) << where;
      EXPECT_EQ(found->text.number, want.ordinal) << where;
    } else {
      EXPECT_TRUE(found->text.named) << where;
      EXPECT_EQ(found->text.name, want.text) << where;
    }
  }
}

TEST_P(WindowsModule, AboutBoxDialog) {
  checkDialog(resource(peResourceNumber(kPeResourceDialog), peResourceName("ABOUTBOX")), "About", 235, 119,
              {
                  {223, kStaticClass, kSsLeft, 38, 9, 73, 9, false, 0, "", false},
                  {0xFFFF, kStaticClass, kSsIcon, 16, 6, 20, 20, true, 256, nullptr, true},
                  {99, kStaticClass, kSsCenter, 17, 32, 202, 43, false, 0, "\nMendaris K\n\nFills in transparent areas",
                   true},
                  {5, kButtonClass, kBsPushButton, 17, 91, 202, 14, false, 0, "Visit Tawny Quince's website...", true},
              });
}

TEST_P(WindowsModule, RefusalDialogs) {
  checkDialog(resource(peResourceNumber(kPeResourceDialog), peResourceName("REFUSAL1")), "Needs Transparency", 176,
              97,
              {
                  {1, kButtonClass, kBsDefPushButton, 118, 76, 50, 14, false, 0, "Cancel", true},
                  {0xFFFF, kStaticClass, kSsLeft, 57, 17, 106, 43, false, 0,
                   "This filter cannot operate on the image's background. Use it on a layer with transparent "
                   "regions.",
                   true},
                  {0xFFFF, kStaticClass, kSsIcon, 11, 17, 20, 20, true, 148, nullptr, true},
              });
  checkDialog(resource(peResourceNumber(kPeResourceDialog), peResourceName("REFUSAL2")), "Old standard", 176, 97,
              {
                  {1, kButtonClass, kBsDefPushButton, 118, 76, 50, 14, false, 0, "Cancel", true},
                  {0xFFFF, kStaticClass, kSsLeft, 57, 17, 106, 43, false, 0,
                   "This filter cannot run because the paint program does not support enough of the Photoshop "
                   "plug-in standard.",
                   true},
                  {0xFFFF, kStaticClass, kSsIcon, 11, 17, 21, 20, true, 148, nullptr, true},
              });
}

TEST_P(WindowsModule, OnlyTheDialogsThatOpen) {
  // The dialogs the code loads by name and no others: REFUSAL3, asked for, finds nothing.
  std::vector<std::string> names;
  for (const PeResourceEntry& entry : listPeResources(module))
    if (!entry.type.named && entry.type.number == kPeResourceDialog) {
      EXPECT_TRUE(entry.name.named) << "dialogs are loaded by name";
      names.push_back(entry.name.name);
    }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"ABOUTBOX", "REFUSAL1", "REFUSAL2"}));
}

// ---- images and manifests ----------------------------------------------------------------------

TEST_P(WindowsModule, TitleBitmaps) {
  DibHeader normal, doubled;
  ASSERT_TRUE(parseDibHeader(resource(peResourceNumber(kPeResourceBitmap), peResourceNumber(270)), &normal));
  ASSERT_TRUE(parseDibHeader(resource(peResourceNumber(kPeResourceBitmap), peResourceNumber(271)), &doubled));
  EXPECT_EQ(normal.width, 109);
  EXPECT_EQ(normal.height, 14);
  EXPECT_EQ(normal.bitCount, 24);
  EXPECT_EQ(normal.compression, 0u);
  // The choice of bitmap takes the second to be exactly twice the first.
  EXPECT_EQ(doubled.width, 2 * normal.width);
  EXPECT_EQ(doubled.height, 28);
  EXPECT_EQ(doubled.bitCount, 24);
}

struct IconFace {
  int size;
  uint16_t bitCount;
  bool operator<(const IconFace& o) const { return size != o.size ? size < o.size : bitCount < o.bitCount; }
  bool operator==(const IconFace& o) const { return size == o.size && bitCount == o.bitCount; }
};

// The faces of an icon group, each checked against the image it points at.
std::vector<IconFace> iconFaces(const PeFile& module, uint16_t group) {
  std::vector<uint8_t> data;
  EXPECT_TRUE(findPeResource(module, peResourceNumber(kPeResourceGroupIcon), peResourceNumber(group), -1, &data))
      << "icon group " << group;
  std::vector<IconGroupEntry> entries;
  EXPECT_TRUE(parseIconGroup(data, &entries)) << "icon group " << group;
  std::vector<IconFace> faces;
  for (const IconGroupEntry& entry : entries) {
    std::vector<uint8_t> image;
    DibHeader header;
    EXPECT_TRUE(findPeResource(module, peResourceNumber(kPeResourceIcon), peResourceNumber(entry.iconId), -1, &image))
        << "icon image " << entry.iconId;
    EXPECT_EQ(image.size(), entry.bytes);
    EXPECT_TRUE(parseDibHeader(image, &header));
    EXPECT_EQ(entry.width, entry.height);
    EXPECT_EQ(header.width, entry.width);
    EXPECT_EQ(header.height, 2 * entry.height) << "colour rows and mask rows";
    EXPECT_EQ(header.bitCount, entry.bitCount);
    faces.push_back({entry.width, entry.bitCount});
  }
  std::sort(faces.begin(), faces.end());
  return faces;
}

TEST_P(WindowsModule, IconGroups) {
  EXPECT_EQ(iconFaces(module, 256), (std::vector<IconFace>{{16, 32}, {32, 32}, {64, 32}}));
  EXPECT_EQ(iconFaces(module, 148), (std::vector<IconFace>{{32, 4}, {32, 8}}));
}

TEST_P(WindowsModule, Manifests) {
  auto text = [&](uint16_t id) {
    std::vector<uint8_t> data = resource(peResourceNumber(kPeResourceManifest), peResourceNumber(id));
    return std::string(data.begin(), data.end());
  };
  for (uint16_t id : {uint16_t(1), uint16_t(123)}) {
    std::string manifest = text(id);
    EXPECT_NE(manifest.find("name=\"Microsoft.Windows.Common-Controls\""), std::string::npos) << id;
    EXPECT_NE(manifest.find("version=\"6.0.0.0\""), std::string::npos) << id;
  }
  EXPECT_NE(text(2).find("level=\"asInvoker\""), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Builds, WindowsModule, ::testing::ValuesIn(kModules),
                         [](const ::testing::TestParamInfo<ModuleCase>& info) {
                           return std::string(info.param.label);
                         });

// ---- the dialogs' arithmetic ------------------------------------------------------------------

TEST(DialogBitmapChoice, NearerWidthWinsTiesGoToTheSecond) {
  struct Case {
    int32_t bitmapWidth, controlWidth, second, chosen;
  };
  const Case cases[] = {
      {109, 120, 271, 270},   // 0.91 -> 1.10 against 1.82: the normal image
      {109, 220, 271, 271},   // 0.50 -> 2.02 against 0.99 -> 1.01: the double one
      {109, 50, 271, 270},    // narrower: shrinking less wins
      {109, 1000, 271, 271},  // far wider: the double one stretches less
      // 8119 / 5741 and 11482 / 8119 differ only past single precision: a tie
      // as floats, which goes to the second (in double the first would win).
      {5741, 8119, 271, 271}, {2378, 3363, 271, 271},
      // No usable second bitmap; 1 is a valid id.
      {109, 220, 0, 270},     {109, 220, -5, 270},   {109, 220, 270, 270}, {109, 220, 1, 1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(chooseDialogBitmap(c.bitmapWidth, c.controlWidth, 270, c.second), c.chosen) << c.controlWidth;
}

TEST(DialogPlacement, CentredAcrossAThirdDownAndKeptOnTheScreen) {
  struct Case {
    int32_t left, top, right, bottom, width, height, screenW, screenH, button;
    bool systemMenu;
    int32_t x, y;
  };
  const Case cases[] = {
      {0, 0, 1024, 768, 1300, 900, 1024, 768, 18, true, 0, 0},    // larger than the screen: the origin
      {0, 0, 1024, 768, 1030, 200, 1024, 768, 18, true, -18, 189},  // the button shift alone keeps it on
      {100, 50, 900, 650, 200, 150, 1920, 1080, 18, true, 600 / 2 - 18 + 100, 450 / 3 + 50},
      {0, 0, 801, 602, 200, 150, 1920, 1080, 18, true, 300 - 18, 150},  // odd spare room truncates
      // Two thirds of the button without a system menu; m + m / -3 truncates
      // toward zero: 20 - 6 = 14, not 13.
      {100, 50, 900, 650, 200, 150, 1920, 1080, 18, false, 300 - 12 + 100, 200},
      {100, 50, 900, 650, 200, 150, 1920, 1080, 20, false, 300 - 14 + 100, 200},
      {100, 50, 900, 650, 200, 150, 1920, 1080, 19, false, 300 - 13 + 100, 200},
      {1500, 700, 2500, 1500, 400, 300, 1920, 1080, 18, true, 1920 - 400, 1080 - 300},  // past the edges
      {1520, 0, 1920, 300, 400, 300, 1920, 1080, 0, true, 1520, 0},  // touching the edge is allowed
  };
  for (const Case& c : cases) {
    DialogPosition p = placeDialog(c.left, c.top, c.right, c.bottom, c.width, c.height, c.screenW, c.screenH, c.button,
                                   c.systemMenu);
    EXPECT_EQ(p.x, c.x) << c.left << "," << c.top << " " << c.width << " " << c.button;
    EXPECT_EQ(p.y, c.y) << c.left << "," << c.top << " " << c.width << " " << c.button;
  }
}

}  // namespace
