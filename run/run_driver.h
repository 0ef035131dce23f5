// One run of the filter, from the first advanceState to the last, called once
// from the Start selector. The outcome stands in the host's result word.
#pragma once

void runFilter();
