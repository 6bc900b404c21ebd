#pragma once

#include <memory>
#include <string>
#include <vector>

namespace render {

class RemoteServer;

/// A table of what each server did, one line each under a line of titles.
std::string formatReport(const std::vector<std::shared_ptr<RemoteServer>>& servers);

} // namespace render
