#include "run/run_driver.h"

void runFilter() {}
