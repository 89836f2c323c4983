#pragma once

#include <nlohmann/json_fwd.hpp>

namespace velmora {

/// What the agent is told of the tools: name, description and the schema of the arguments of each.
const nlohmann::ordered_json& toolCatalogue();

}  // namespace velmora
