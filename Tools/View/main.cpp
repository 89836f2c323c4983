// A viewer with a window and no more: for people who know the address, and for measuring.

#include <fmt/format.h>

#include <iostream>
#include <string>
#include <vector>

#include "Tools/View/CompositionView.h"
#include "Tools/View/ViewOptions.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Signaling/SignalingClient.h"

int main(int argc, char** argv) {
    using namespace velmora;
    const auto options = ViewOptions::parse({argv + 1, argv + argc});
    if (!options) {
        std::cerr << "velmora-view: " << options.error().text << '\n' << ViewOptions::usage;
        return 2;
    }
    const auto rendezvous = SignalingClient::defaultURL();
    if (!rendezvous) {
        std::cerr << "velmora-view: " << rendezvous.error().text << '\n';
        return 1;
    }
    if (options->log) {
        DebugLog::shared().setSink([](DebugLog::Source source, std::string_view text) {
            std::cerr << fmt::format("{}  {}\n", DebugLog::wordFor(source), text) << std::flush;
        });
    }
    return runView(*options, *rendezvous);
}
