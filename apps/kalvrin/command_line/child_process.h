#pragma once

namespace Orvik::Tesmo::Tool {

/// Returns in a child process. The engine can be brought to end its process by a model (a division
/// of integers by zero will do); the parent waits here, ends with the exit status of the child, and
/// says what happened where a fault ended it: Refusal. Signals that ask to end go to both. Call it
/// before there is an engine or a thread, with nothing printed.
void ContinueInChild();

}  // namespace Orvik::Tesmo::Tool
