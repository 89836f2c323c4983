#include <cstring>

#include "App/Roles.h"

/// Chooses the role before anything else is made: only "mcp" as the first argument is the agent bridge.
int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "mcp") == 0) return velmora::runAgentBridge(argc - 2, argv + 2);
    return velmora::runApplication(argc, argv);
}
