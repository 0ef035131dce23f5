// One run of the filter, from the first advanceState to the last, called once
// from the Start selector. The outcome stands in the host's result word.
#pragma once

#include <stdint.h>

struct InstanceBlock;
struct PixelStore;

void runFilter();

void loadSource(InstanceBlock* instance);
void fillOddsTable();
void prepareHostFrame(InstanceBlock* instance);
void prepareHostFrameAt(InstanceBlock* instance, int32_t rate);
void beginRunProgress(InstanceBlock* instance);
void prepareRunScratch(InstanceBlock* instance);
void runFill(InstanceBlock* instance);
// The coverage fields of the source, started as soon as its level 0 is
// read, and its fill (three passes), which runs beside the field's sweeps
// where there is a processor for each. fillBesideSweeps starts the fields
// itself when startFillFields was not called for this source.
void startFillFields(PixelStore* source);
void fillBesideSweeps(PixelStore* source);
void freeFillStores();
