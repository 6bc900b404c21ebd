#pragma once

#include <memory>
#include <string>
#include <vector>

namespace render {

class RemoteServer;

/// What the job has cost: a table of what each server did, one line each under a line of titles,
/// then the bytes that travelled altogether, as they were written and as they were compressed, and
/// how many bytes of scene the application has sent.
std::string formatReport(const std::vector<std::shared_ptr<RemoteServer>>& servers);

} // namespace render
