// One run of the filter, from the first advanceState to the last, called once
// from the Start selector. The outcome stands in the host's result word.
#pragma once

#include <stdint.h>

struct InstanceBlock;

void runFilter();

void loadSource(InstanceBlock* instance);
void fillOddsTable();
void prepareHostFrame(InstanceBlock* instance);
void prepareHostFrameAt(InstanceBlock* instance, int32_t rate);
void beginRunProgress(InstanceBlock* instance);
void prepareRunScratch(InstanceBlock* instance);
void runFill(InstanceBlock* instance);
void freeFillStores();
