#pragma once

// Figures of a long run's phases, for benchmarks. With RAVELIN_PHASES set in the environment,
// each `endPhase` writes one line to standard error: the phase's name, its time, the peak
// resident memory during it and the resident memory at its end; the next phase's peak then
// starts afresh. Without it, nothing is read or written.

namespace platform {

// Starts the first phase: its clock and its peak.
void startPhases();
// Ends the phase in progress under `name` and starts the next one.
void endPhase(const char* name);

}  // namespace platform
