#include <cstdio>
#include <cstring>

#include "App/Roles.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Signaling/SignalingClient.h"

/// Chooses the role before anything else is made: only "mcp" as the first argument is the agent bridge.
int main(int argc, char** argv) {
    const auto rendezvous = velmora::SignalingClient::defaultURL();
    if (!rendezvous) {
        constexpr std::size_t longest = 500;
        const auto words = velmora::printableLine(rendezvous.error().text, longest);
        std::fprintf(stderr, "Velmora: %s\n", words.c_str());
        return 1;
    }
    if (argc > 1 && std::strcmp(argv[1], "mcp") == 0)
        return velmora::runAgentBridge(argc - 2, argv + 2, *rendezvous);
    return velmora::runApplication(argc, argv, *rendezvous);
}
