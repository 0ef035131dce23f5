// Runs the standard scenarios through a plug-in module and prints one line per
// scenario: its name, the run's result and the digest of the output document.
// The same program is built natively, as 32-bit code and for Windows, so that
// every build's output can be compared.
//
//   scenario_digests MODULE [--threads-note]
#include <stdio.h>

#include <vector>

#include "plugin_host/scenarios.h"

#if defined(_WIN32)
#include <windows.h>

#include "plugin_host/pipl_reader.h"

namespace {

std::vector<uint8_t> resourceBytes(HMODULE module, const char* type) {
  HRSRC found = FindResourceA(module, MAKEINTRESOURCEA(16000), type);
  if (found == nullptr) return {};
  HGLOBAL loaded = LoadResource(module, found);
  const uint8_t* bytes = loaded != nullptr ? static_cast<const uint8_t*>(LockResource(loaded)) : nullptr;
  if (bytes == nullptr) return {};
  return std::vector<uint8_t>(bytes, bytes + SizeofResource(module, found));
}

// Reads the module's PiPL and AETE as a host does before it runs anything:
// eleven properties ending at 514, and names that agree with the terminology.
bool checkResources(void* library) {
  HMODULE module = static_cast<HMODULE>(library);
  std::string error;
  PiplList pipl;
  if (!parsePipl(resourceBytes(module, "PIPL"), &pipl, &error)) {
    printf("pipl: unreadable: %s\n", error.c_str());
    return false;
  }
  std::string name, category, scope;
  for (const PiplProperty& p : pipl.properties) {
    if (p.key == "name") name = piplPascalString(p.data);
    if (p.key == "catg") category = piplPascalString(p.data);
    if (p.key == "hstm") {
      PiplTerminology t;
      if (parsePiplTerminology(p.data, &t)) scope = t.scope;
    }
  }
  AeteTerminology aete;
  bool aeteRead = parseAete(resourceBytes(module, "AETE"), &aete, &error);
  bool agree = aeteRead && !aete.suites.empty() && aete.suites[0].name == category &&
               !aete.suites[0].events.empty() && aete.suites[0].events[0].name == name &&
               scope == category + " " + name;
  bool ok = pipl.count == 11 && pipl.properties.size() == 11 && pipl.end == 514 && agree;
  printf("pipl: %s: %d properties, ends at %d, \"%s\" under \"%s\", terminology %s\n", ok ? "ok" : "WRONG",
         pipl.count, int(pipl.end), name.c_str(), category.c_str(), agree ? "agrees" : "disagrees");
  return ok;
}

}  // namespace
#endif

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: scenario_digests MODULE\n");
    return 2;
  }
  standin::Module module;
  if (!standin::loadModule(module, argv[1])) {
    fprintf(stderr, "scenario_digests: %s\n", module.error.c_str());
    return 1;
  }
  int failures = 0;
#if defined(_WIN32)
  if (!checkResources(module.library)) ++failures;
#endif
  for (standin::Scenario& s : standin::standardScenarios()) {
    standin::Host host(module, s.document, s.options);
    standin::RunOutcome outcome = host.run();
    printf("%s %d %s\n", s.name.c_str(), outcome.result, standin::documentDigest(s.document).c_str());
    if (outcome.result != 0) ++failures;
  }
  fflush(stdout);
  return failures == 0 ? 0 : 1;
}
