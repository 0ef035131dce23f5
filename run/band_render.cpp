#include "run/band_render.h"

#include "run/job_pool.h"

void renderImage(uint32_t tag) {
  JobRequest request = makeJobRequest(tag);
  runJob(kJobRender, kTilingSquares, request);
}

void writeUnit(JobUnit* unit) { (void)unit; }
