#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Clipboard/XSelectionOwner.h"
#include "Platform/Linux/Clipboard/XSelectionReader.h"
#include "Platform/Pasteboard.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The CLIPBOARD selection of an X server, on a connection and a thread of its own: no other program can hold
/// the main queue up. `x-kde-passwordManagerHint` counts as the concealed type; pictures in
/// other forms are read as PNG, and PNG is offered as TIFF too. Where there is no X server
/// the pasteboard is empty; each use looks again.
class X11Pasteboard final : public Pasteboard {
public:
    struct Parameters {
        XSelectionReader::Parameters reader;
        XSelectionOwner::Parameters owner;
        /// For a clipboard manager to take what we hold, while somebody waits for our end.
        HostClock::duration handOver = std::chrono::seconds(1);
    };
    /// `display` such as ":0"; empty means what DISPLAY says. `main` outlives the pasteboard.
    explicit X11Pasteboard(Queue& main, std::string display = {});
    X11Pasteboard(Queue& main, std::string display, const Parameters& parameters);
    /// What was written is gone, unless a clipboard manager keeps it.
    ~X11Pasteboard() override;

    std::int64_t changeCount() override;
    void readTypes(Types done) override;
    void read(const std::string& type, std::size_t most, Reading done) override;
    void readFiles(Files done) override;
    void write(std::vector<PasteboardItem> items) override;
    void writeFiles(const std::vector<std::filesystem::path>& files) override;

private:
    class Client;
    Client& client();
    void handleChange();
    /// Calls `done` on the main queue, from any thread.
    template <class Value>
    UniqueFunction<void(Value)> onMain(UniqueFunction<void(Value)> done);

    Queue& main_;
    const std::string display_;
    const Parameters parameters_;
    std::int64_t count_ = 0;
    std::unique_ptr<Client> client_;
    Liveness alive_;
};

}  // namespace velmora
