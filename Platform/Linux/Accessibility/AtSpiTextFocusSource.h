#pragma once

#include <memory>

#include "Platform/TextFocusSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

class GlibThread;

/// The keyboard focus as programs tell it on the accessibility bus (AT-SPI), on a thread of its own. They
/// tell each change, so that nothing is done while nobody types or clicks. What had the focus before is
/// looked for once, in the active window. Where there is no such bus one line says so, and nothing has the
/// focus.
class AtSpiTextFocusSource final : public TextFocusSource {
public:
    explicit AtSpiTextFocusSource(Queue& main);  // outlives us
    ~AtSpiTextFocusSource() override;

    std::unique_ptr<Watch> watch(Told onFocus) override;

private:
    class Listener;
    class Token;
    struct Complaint {
        bool isMade = false;  // of the thread
    };

    Queue& main_;
    const std::shared_ptr<Complaint> complaint_;
    std::shared_ptr<GlibThread> thread_;  // from the first watch on
};

}  // namespace velmora
