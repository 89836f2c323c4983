#pragma once

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Agent/RemoteMac.h"

namespace velmora {

/// A remote Mac that remembers what was done to it and shows what the test says.
class FakeRemoteMac final : public RemoteMac {
public:
    // What it is like.
    std::vector<std::string> devices;
    std::optional<std::string> knownHostID;
    std::string statusWords = "Connected";
    std::optional<std::string> name;
    bool connected = true;
    std::optional<std::string> unreachable;  // the words of the failure to connect
    PixelSize shot{1568, 980};
    std::optional<Shot> picture = Shot{{1, 2, 3}, {1568, 980}};
    bool changes = true;
    std::optional<ClipboardContent> clipboard;
    std::optional<DisplayList> displays;

    // What was done.
    std::vector<InputEvent> sent;
    std::vector<Selection> selections;
    std::vector<std::optional<ShotGeometry::Region>> shots;
    std::vector<Rest> waits;
    std::vector<std::string> clipboards;
    std::vector<std::optional<std::uint32_t>> selectedDisplays;
    int gates = 0;

    std::vector<std::string> deviceLines() const override { return devices; }
    std::optional<std::string> hostIDOf(const std::string&) const override { return knownHostID; }
    std::string statusText() const override { return statusWords; }
    const std::optional<std::string>& deviceName() const override { return name; }
    void select(const Selection& selection) override { selections.push_back(selection); }
    void ensureStreaming(HostClock::duration, UniqueFunction<void(const Status&)> done) override {
        ++gates;
        done(unreachable ? Status(Failure{*unreachable}) : Status(Done{}));
    }
    bool hasConnection() const override { return connected; }
    void disconnect() override { connected = false; }
    PixelSize shotSize() const override { return shot; }
    void takeShot(const std::optional<ShotGeometry::Region>& region,
                  UniqueFunction<void(std::optional<Shot>)> done) override {
        shots.push_back(region);
        done(picture);
    }
    void waitForChange(const Rest& rest, UniqueFunction<void(bool)> done) override {
        waits.push_back(rest);
        done(changes);
    }
    void send(const std::vector<InputEvent>& events) override {
        sent.insert(sent.end(), events.begin(), events.end());
    }
    void setRemoteClipboard(const std::string& text) override { clipboards.push_back(text); }
    void selectDisplay(std::optional<std::uint32_t> id) override { selectedDisplays.push_back(id); }
    const std::optional<ClipboardContent>& remoteClipboard() const override { return clipboard; }
    const std::optional<DisplayList>& displayList() const override { return displays; }
};

}  // namespace velmora
