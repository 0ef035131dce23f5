// Shared helpers of the tests: the plug-in module loaded from disk, the same
// entry point linked in (so that a test can also look at the engine's words),
// and views of the blocks a host holds.
#pragma once

#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "plugin_host/scenarios.h"
#include "plugin_host/stand_in_host.h"
#include "store/pixel_store.h"

namespace testing_support {

// The native module built beside the tests, loaded once per process.
standin::Module& nativeModule();
// A module whose PluginMain is the engine linked into the test itself.
standin::Module& linkedModule();

// The blocks behind the host's handles, read through the master pointers.
ParamBlock* paramBlockOf(standin::Host& host);
InstanceBlock* instanceBlockOf(standin::Host& host);

// Counts of one host call in a log.
int countCalls(const std::vector<standin::HostCall>& calls, const std::string& name);

// This thread, and the threads it starts, on the first `count` of the
// processors the process may use; and how many those are, whatever a test
// has narrowed them to since.
void pinToCpus(int count);
int availableCpus();

// A host record, a ParamBlock and a result word of the test's own in
// hostContext: enough host for the engine's jobs, which poll the record for
// cancel between units. The run is whole, in the normal blend mode, at full
// rate, and reports no progress.
struct EngineFixture : ::testing::Test {
  FilterRecord record;
  ParamBlock params;
  int16_t result = 0;
  void SetUp() override {
    memset(&record, 0, sizeof record);
    memset(&params, 0, sizeof params);
    params.runStage = kRunStageWhole;
    params.blendMode = 1;
    params.sampleRate = 1;
    params.progressDone = -1;
    hostContext.filterRecord = &record;
    hostContext.paramBlock = &params;
    hostContext.instanceBlock = nullptr;
    hostContext.resultWord = &result;
  }
  void TearDown() override {
    hostContext.filterRecord = nullptr;
    hostContext.paramBlock = nullptr;
    hostContext.resultWord = nullptr;
  }
};

// A heap store for the length of a test.
struct OwnedStore {
  PixelStore* store;
  OwnedStore(int32_t w, int32_t h, int32_t kind, bool bordered = false)
      : store(pixelStoreCreate(w, h, kind, 0, bordered)) {}
  ~OwnedStore() { pixelStoreDestroy(&store); }
  OwnedStore(const OwnedStore&) = delete;
  OwnedStore& operator=(const OwnedStore&) = delete;
  PixelStore* operator->() const { return store; }
};

std::string sourcePath(const std::string& relative);
std::string binaryPath(const std::string& relative);

}  // namespace testing_support
