#include "tests/support/test_support.h"

#include <sched.h>
#include <stdio.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "host/plugin_main.h"

namespace testing_support {

namespace {
// Every host of the tests is strict: whatever Photoshop would refuse fails the test.
void failOnViolation(const std::string& what) { ADD_FAILURE() << "host violation: " << what; }
const bool violationsFail = (standin::setViolationObserver(failOnViolation), true);
}  // namespace

standin::Module& nativeModule() {
  static standin::Module module;
  if (module.pluginMain == nullptr && !standin::loadModule(module, MENDARIS_MODULE_PATH)) {
    fprintf(stderr, "cannot load the module: %s\n", module.error.c_str());
    abort();
  }
  return module;
}

standin::Module& linkedModule() {
  static standin::Module module;
  module.pluginMain = &PluginMain;
  module.path = "(linked)";
  return module;
}

ParamBlock* paramBlockOf(standin::Host& host) {
  Handle h = host.record().parameters;
  return h != nullptr ? reinterpret_cast<ParamBlock*>(*h) : nullptr;
}

InstanceBlock* instanceBlockOf(standin::Host& host) {
  Handle h = reinterpret_cast<Handle>(host.dataWord());
  return h != nullptr ? reinterpret_cast<InstanceBlock*>(*h) : nullptr;
}

int countCalls(const std::vector<standin::HostCall>& calls, const std::string& name) {
  int n = 0;
  for (const standin::HostCall& c : calls) n += c.name == name ? 1 : 0;
  return n;
}

namespace {

// The processors the process had before any test narrowed them.
const cpu_set_t& processCpus() {
  static const cpu_set_t all = [] {
    cpu_set_t s;
    CPU_ZERO(&s);
    sched_getaffinity(0, sizeof(s), &s);
    return s;
  }();
  return all;
}

}  // namespace

void pinToCpus(int count) {
  const cpu_set_t& all = processCpus();
  cpu_set_t set;
  CPU_ZERO(&set);
  int taken = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE && taken < count; ++cpu)
    if (CPU_ISSET(cpu, &all)) {
      CPU_SET(cpu, &set);
      ++taken;
    }
  ASSERT_EQ(sched_setaffinity(0, sizeof(set), &set), 0);
}

int availableCpus() { return CPU_COUNT(&processCpus()); }

std::string sourcePath(const std::string& relative) { return std::string(MENDARIS_SOURCE_DIR) + "/" + relative; }
std::string binaryPath(const std::string& relative) { return std::string(MENDARIS_BINARY_DIR) + "/" + relative; }

}  // namespace testing_support
