// Runs the standard scenarios through a plug-in module and prints one line per
// scenario: its name, the run's result and the digest of the output document.
// The same program is built natively, as 32-bit code and for Windows, so that
// every build's output can be compared.
//
//   scenario_digests MODULE [--threads-note]
#include <stdio.h>

#include "plugin_host/scenarios.h"

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
  for (standin::Scenario& s : standin::standardScenarios()) {
    standin::Host host(module, s.document, s.options);
    standin::RunOutcome outcome = host.run();
    printf("%s %d %s\n", s.name.c_str(), outcome.result, standin::documentDigest(s.document).c_str());
    if (outcome.result != 0) ++failures;
  }
  fflush(stdout);
  return failures == 0 ? 0 : 1;
}
