#pragma once

// The command line's deletion: the plan, the question, the run with progress, pause and Ctrl-C,
// and the report.

#include "host/Deletion.h"

namespace cli {

using namespace host;

// Shows the plan, asks (or takes `--yes`), runs the deletion and prints the outcome. `dryRun`
// stops after the plan. Returns normally when everything asked for is gone; otherwise ends with
// a `CommandError` (exit 1) after the report. Without a terminal and without `yes`, nothing is
// deleted and the answer is a usage error (exit 2).
void confirmAndDelete(DeletionRequest request, bool yes, bool dryRun, bool json);

}  // namespace cli
