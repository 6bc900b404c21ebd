#pragma once

#include <string>
#include <vector>

/// What the tests see of, and do to, the processes that their programs start.
///
/// One source per system stands in platform/.
namespace kyTest {

/// The running processes of a program, by its file name, that this process has started or that
/// descend from one it has started; in the order of their ids.
std::vector<long long> findDescendants(const std::string& program);

/// Whether the process runs; one that has ended and waits to be collected does not.
bool isAlive(long long processId);

/// Seconds of processor time that the process has used; 0 if it does not run.
double getProcessorSeconds(long long processId);

/// Ends the process without giving it a chance to notice.
void killProcess(long long processId);

/// Lets the process do nothing any more, without its connections noticing, until it is resumed; it
/// stands still when the call returns. Not on Windows, where no test needs it.
void suspendProcess(long long processId);
void resumeProcess(long long processId);

} // namespace kyTest
