#pragma once

#include <string>
#include <vector>

#include <apps/TALOClusterControl/NodeReport.h>

/// The reports as a table for people: a line per node that answered, in the order of the nodes.
/// Whatever a node sent is shown without control characters.
std::string formatTable(const std::vector<NodeReport>& reports);

/// The failures for people, a line each.
std::string formatErrors(const std::vector<NodeReport>& reports);

/// The reports for programs: a JSON array with an object per node, in the order of the nodes.
std::string formatJson(const std::vector<NodeReport>& reports);
