#include "Host/DisplayControl.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace velmora {

namespace {

std::string describe(const DisplayRequest& request) {
    return fmt::format("{}×{} pt @{}x", request.width, request.height, request.scale);
}

int evenPixels(double pixels) {
    return static_cast<int>(pixels) & ~1;
}

std::string nameOf(const Display& display) {
    return display.name.empty() ? fmt::format("Display {}", display.id) : display.name;
}

}  // namespace

DisplayControl::DisplayControl(Services services, QueueOwned<VideoPipeline> video,
                               const ServerSettings& settings)
    : DisplayControl(std::move(services), std::move(video), settings, Parameters()) {}

DisplayControl::DisplayControl(Services services, QueueOwned<VideoPipeline> video,
                               const ServerSettings& settings, Parameters parameters)
    : services_(std::move(services)),
      settings_(settings),
      parameters_(parameters),
      log_(services_.connection),
      video_(std::move(video)),
      virtualUnavailable_(services_.virtualDisplays == nullptr) {}

PixelSize DisplayControl::streamSize(PixelSize pixels) {
    const double longest = std::max({pixels.width, pixels.height, 1});
    const double factor = std::min(ServerSettings::maxDimension / longest, 1.0);
    return {evenPixels(pixels.width * factor), evenPixels(pixels.height * factor)};
}

double DisplayControl::millisecondsSince(HostClock::time_point start) const {
    return std::chrono::duration<double, std::milli>(now() - start).count();
}

// Operations

void DisplayControl::enqueue(Operation operation) {
    assertOn(services_.display);
    operations_.push_back(std::move(operation));
    if (!isBusy_) runNext();
}

void DisplayControl::runNext() {
    if (stopped_ || operations_.empty()) return;
    isBusy_ = true;
    const Operation operation = std::move(operations_.front());
    operations_.pop_front();
    operation();
}

void DisplayControl::finish() {
    isBusy_ = false;
    runNext();
}

template <class F>
auto DisplayControl::resumeWith(F step) {
    const QueueRef<DisplayControl> self(services_.display, weak_from_this());
    return [self, step = std::move(step)](auto... arguments) {
        self.perform([step, ... arguments = std::move(arguments)](DisplayControl& control) mutable {
            if (!control.stopped_) step(std::move(arguments)...);
        });
    };
}

void DisplayControl::find(const Search& search, Found found, int round) {
    const auto all = services_.displays.list();
    if (!all && search.listFailureEnds) {
        found(all.error());
        return;
    }
    if (all) {
        for (const Display& display : *all) {
            if (display.id != search.id) continue;
            found(display);
            return;
        }
        if (round == 1 && search.firstRound == FirstRound::anyDisplay && !all->empty()) {
            found(all->front());
            return;
        }
    }
    if (round >= parameters_.findRounds) {
        found(Failure{"No display found", 1});
        return;
    }
    wait_ = services_.display.after(parameters_.findInterval, [this, search, found = std::move(found),
                                                               round] { find(search, found, round + 1); });
}

// Start and stop

void DisplayControl::start(const Beginning& beginning, std::function<void(Status)> done) {
    onStarted_ = std::move(done);
    sendsAudio_ = beginning.audio;
    enqueue([this, beginning] { chooseDisplay(beginning); });
}

void DisplayControl::chooseDisplay(const Beginning& beginning) {
    if (!beginning.window) {
        log_("Viewer chose this Mac's own display; streaming the main display");
        beginWithMain();
    } else if (!settings_.dynamicDisplay) {
        log_("Match Viewer Window Size is off in the server menu; streaming the main display");
        beginWithMain();
    } else {
        beginVirtual(*beginning.window);
    }
}

void DisplayControl::beginVirtual(const DisplayRequest& window) {
    log_(fmt::format("Creating virtual display {}…", describe(window)));
    const auto began = now();
    if (services_.virtualDisplays) {
        virtualDisplay_ = services_.virtualDisplays->make(ServerSettings::maxDimension, services_.display);
    }
    if (!virtualDisplay_) {
        virtualUnavailable_ = true;
        log_("⚠︎ Could not create the virtual display; streaming the main display instead");
        beginWithMain();
        return;
    }
    const auto modeSet = [this, began](std::optional<VirtualDisplay::Size> mode) {
        const auto size = mode.value_or(VirtualDisplay::Size());
        isDynamic_ = true;
        log_(fmt::format(
            "Virtual display {} ready: {:.0f}×{:.0f} pt, {:.0f}×{:.0f} px, now main display ({:.0f} ms)",
            virtualDisplay_->displayId(), size.widthPoints, size.heightPoints, size.pixelWidth,
            size.pixelHeight, millisecondsSince(began)));
        const auto appeared = [this](const Result<Display>& display) {
            if (display) {
                beginWith(*display);
                return;
            }
            log_(
                "⚠︎ Virtual display did not appear in ScreenCaptureKit; streaming the main display "
                "instead");
            virtualUnavailable_ = true;
            virtualDisplay_.reset();
            isDynamic_ = false;
            beginWithMain();
        };
        find({.id = virtualDisplay_->displayId(), .listFailureEnds = true}, appeared);
    };
    virtualDisplay_->setMode(window, resumeWith(modeSet));
}

void DisplayControl::beginWithMain() {
    const auto found = [this](const Result<Display>& display) {
        if (display) {
            beginWith(*display);
        } else {
            startFailed(display.error());
        }
    };
    find({.id = services_.displays.mainDisplayId(),
          .firstRound = FirstRound::anyDisplay,
          .listFailureEnds = true},
         found);
}

void DisplayControl::beginWith(const Display& display) {
    showDisplay(display.id, isDynamic_);
    const PixelSize size = streamSize(display.pixels);
    const auto encoderMade = [this, display, size](const Result<VideoPipeline::EncoderInfo>& encoder) {
        if (!encoder) {
            startFailed(encoder.error());
            return;
        }
        streamSize_ = size;
        if (encoder->codec != settings_.codec) {
            log_("HEVC is asked for, but no hardware here encodes it; encoding H.264");
        }
        log_(fmt::format("Encoder: {} {}×{}, {} Mbit/s, low-latency rate control {}",
                         encoder->codec == VideoCodec::hevc ? "HEVC" : "H.264", size.width, size.height,
                         encoder->mbps, encoder->usesLowLatencyRateControl ? "on" : "not available"));
        beginCapture(display, size);
    };
    video_.perform([size, isDynamic = isDynamic_, tell = resumeWith(encoderMade)](VideoPipeline& video) {
        tell(video.replaceEncoder(size, isDynamic));
    });
}

void DisplayControl::beginCapture(const Display& display, PixelSize size) {
    if (sendsAudio_) log_("⚠︎ Opus encoder not available; no sound");
    const auto captureStarted = [this, display, size](const Status& status) {
        if (!status) {
            log_(fmt::format("⚠︎ Screen capture failed to start: {}. Is Screen Recording allowed?",
                             status.error().text));
            startFailed(status.error());
            return;
        }
        log_(fmt::format("Capture started: display {}, {}×{} px, up to {} fps", display.id, size.width,
                         size.height, ServerSettings::fps));
        hasStream_ = true;
        processResizes();
        sendDisplayList();
        if (const auto told = std::exchange(onStarted_, nullptr)) told(Done());
        finish();
    };
    video_.perform([id = display.id, tell = resumeWith(captureStarted)](VideoPipeline& video) {
        video.startCapture(id, tell);
    });
}

void DisplayControl::startFailed(const Failure& failure) {
    if (const auto told = std::exchange(onStarted_, nullptr)) told(failure);
    finish();
}

void DisplayControl::stop() {
    assertOn(services_.display);
    if (std::exchange(stopped_, true)) return;
    wait_.reset();
    operations_.clear();
    onStarted_ = nullptr;
    hasStream_ = false;
    if (virtualDisplay_) hostLog("Removing virtual display; windows move back to the physical screen");
    Queue::Block release = [&display = services_.display, held = std::move(virtualDisplay_)]() mutable {
        if (held) display.post([held = std::move(held)]() mutable { held.reset(); });
    };
    video_.perform(
        [release = std::move(release)](VideoPipeline& video) mutable { video.retire(std::move(release)); });
    video_.reset();
}

// Resizing

void DisplayControl::resize(const DisplayRequest& request) {
    if (stopped_) return;
    log_(fmt::format("Resize requested: {}{}", describe(request),
                     isDynamic_ ? "" : " (ignored: not a virtual display)"));
    pendingResize_ = request;
    processResizes();
}

void DisplayControl::processResizes() {
    if (!hasStream_ || resizeIsQueued_ || stopped_ || !pendingResize_ || !isDynamic_) return;
    resizeIsQueued_ = true;
    enqueue([this] { serveResizes(); });
}

void DisplayControl::serveResizes() {
    if (!pendingResize_ || !virtualDisplay_ || !hasStream_) {
        resizeIsQueued_ = false;
        finish();
        return;
    }
    const DisplayRequest request = *std::exchange(pendingResize_, std::nullopt);
    applyResize(request, [this] { serveResizes(); });
}

void DisplayControl::applyResize(const DisplayRequest& request, Operation then) {
    const auto began = now();
    const auto modeSet = [this, request, began,
                          then = std::move(then)](std::optional<VirtualDisplay::Size> mode) {
        if (!mode) {
            log_(fmt::format("⚠︎ Could not switch the virtual display to {}×{}", request.width,
                             request.height));
            then();
            return;
        }
        showDisplay(currentDisplay_, isDynamic_);  // where it is and how large has changed
        const PixelSize size{evenPixels(mode->pixelWidth), evenPixels(mode->pixelHeight)};
        if (size == streamSize_) {
            log_(fmt::format("Resize: already {}×{} px", size.width, size.height));
            then();
            return;
        }
        changeStream(currentDisplay_, size, [this, mode, size, began, then](const Status&) {
            log_(fmt::format("Resized to {:.0f}×{:.0f} pt, {}×{} px ({:.0f} ms)", mode->widthPoints,
                             mode->heightPoints, size.width, size.height, millisecondsSince(began)));
            then();
        });
    };
    virtualDisplay_->setMode(request, resumeWith(modeSet));
}

void DisplayControl::changeStream(DisplayId display, PixelSize size, std::function<void(Status)> then) {
    const auto encoderMade = [this, size, then](const Result<VideoPipeline::EncoderInfo>& encoder) {
        if (encoder) streamSize_ = size;
        then(encoder ? Status(Done()) : Status(encoder.error()));
    };
    const auto captureChanged = [this, size, then, tell = resumeWith(encoderMade)](const Status& status) {
        if (!status) {
            then(status);
            return;
        }
        video_.perform([size, isDynamic = isDynamic_, tell](VideoPipeline& video) {
            tell(video.replaceEncoder(size, isDynamic));
        });
    };
    video_.perform([display, size, tell = resumeWith(captureChanged)](VideoPipeline& video) {
        video.updateCapture(display, size, tell);
    });
}

// Selection

void DisplayControl::select(const DisplaySelection& selection) {
    if (stopped_) return;
    // It brings the size that the window has now: what an earlier resize asked for is past.
    if (!selection.displayID) pendingResize_.reset();
    if (operations_.size() >= parameters_.mostWaiting && lastSelection_) {
        *lastSelection_ = selection;
        return;
    }
    lastSelection_ = std::make_shared<DisplaySelection>(selection);
    enqueue([this, asked = lastSelection_] { applySelection(*asked); });
}

void DisplayControl::applySelection(const DisplaySelection& selection) {
    if (!hasStream_) {
        finish();
    } else if (selection.displayID) {
        selectPhysical(*selection.displayID);
    } else {
        selectVirtual(selection);
    }
}

void DisplayControl::selectPhysical(DisplayId id) {
    if (id == currentDisplay_ && !isDynamic_) {
        sendDisplayList();
        finish();
        return;
    }
    std::string name = fmt::format("display {}", id);
    for (const ServerDisplay& display : physicalDisplays()) {
        if (display.id == id) name = display.name;
    }
    log_(fmt::format("Switching to “{}”…", name));
    find({.id = id}, [this, name](const Result<Display>& display) {
        if (display) {
            switchTo(*display, name);
        } else {
            refuse(fmt::format("⚠︎ “{}” is not available for capture", name));
        }
    });
}

void DisplayControl::switchTo(const Display& display, const std::string& name) {
    const auto began = now();
    const PixelSize size = streamSize(display.pixels);
    const DisplayId before = currentDisplay_;
    const bool wasDynamic = isDynamic_;
    showDisplay(display.id, false);
    changeStream(display.id, size, [this, name, size, began, before, wasDynamic](const Status& status) {
        if (!status) {
            showDisplay(before, wasDynamic);
            refuse(fmt::format("⚠︎ “{}” is not available for capture", name));
            return;
        }
        log_(fmt::format("Now streaming {}, {}×{} px ({:.0f} ms)", name, size.width, size.height,
                         millisecondsSince(began)));
        if (virtualDisplay_) {
            virtualDisplay_.reset();
            log_("Removed the virtual display; windows move back to the physical screen");
        }
        sendDisplayList();
        finish();
    });
}

void DisplayControl::refuse(const std::string& line) {
    log_(line);
    sendDisplayList();
    finish();
}

void DisplayControl::selectVirtual(const DisplaySelection& selection) {
    if (!settings_.dynamicDisplay) {
        refuse(
            "⚠︎ Match This Window is not available: “Match Viewer Window Size” is off in the server "
            "menu");
        return;
    }
    if (virtualUnavailable_) {
        refuse("⚠︎ Match This Window is not available: virtual displays don't work on this Mac");
        return;
    }
    const DisplayRequest window = selection.window.value_or(parameters_.defaultWindow);
    if (virtualDisplay_ && isDynamic_) {
        applyResize(window, [this] {
            sendDisplayList();
            finish();
        });
        return;
    }
    log_(fmt::format("Creating virtual display {}…", describe(window)));
    hasStream_ = false;
    const auto captureStopped = [this, window] { makeVirtual(window); };
    video_.perform([tell = resumeWith(captureStopped)](VideoPipeline& video) { video.stopCapture(tell); });
}

void DisplayControl::makeVirtual(const DisplayRequest& window) {
    virtualDisplay_ = services_.virtualDisplays->make(ServerSettings::maxDimension, services_.display);
    if (!virtualDisplay_) {
        fallBackFromVirtual();
        return;
    }
    const auto modeSet = [this](std::optional<VirtualDisplay::Size> mode) {
        if (!mode) {
            fallBackFromVirtual();
            return;
        }
        find({.id = virtualDisplay_->displayId()}, [this](const Result<Display>& display) {
            if (display) {
                restartCapture(*display, true, "virtual display (now main display)");
            } else {
                fallBackFromVirtual();
            }
        });
    };
    virtualDisplay_->setMode(window, resumeWith(modeSet));
}

void DisplayControl::fallBackFromVirtual() {
    log_("⚠︎ Could not create the virtual display");
    virtualDisplay_.reset();
    const bool isOnline = services_.displays.find(currentDisplay_).has_value();
    const DisplayId id = isOnline ? currentDisplay_ : services_.displays.mainDisplayId();
    find({.id = id}, [this](const Result<Display>& display) {
        if (display) {
            restartCapture(*display, false, fmt::format("display {}", display->id));
        } else {
            captureLost("⚠︎ No display to capture");
        }
    });
}

void DisplayControl::restartCapture(const Display& display, bool isDynamic, const std::string& label) {
    const auto began = now();
    const PixelSize size = streamSize(display.pixels);
    showDisplay(display.id, isDynamic);
    const auto captureStarted = [this, size, began, label](const Status& status) {
        if (!status) {
            captureLost(fmt::format("⚠︎ Capture did not restart: {}", status.error().text));
            return;
        }
        hasStream_ = true;
        streamSize_ = size;
        log_(fmt::format("Now streaming {}, {}×{} px ({:.0f} ms)", label, size.width, size.height,
                         millisecondsSince(began)));
        processResizes();
        sendDisplayList();
        finish();
    };
    video_.perform(
        [id = display.id, size, isDynamic, tell = resumeWith(captureStarted)](VideoPipeline& video) {
            if (const auto encoder = video.replaceEncoder(size, isDynamic); !encoder) {
                tell(Status(encoder.error()));
            } else {
                video.startCapture(id, tell);
            }
        });
}

void DisplayControl::captureLost(const std::string& line) {
    log_(line);
    services_.connection->cancel();
    sendDisplayList();
    finish();
}

// What the viewer and the input are told

void DisplayControl::showDisplay(DisplayId id, bool isDynamic) {
    currentDisplay_ = id;
    isDynamic_ = isDynamic;
    services_.input.perform([id](InputSeat& seat) {
        if (seat.receiver) seat.receiver->setDisplay(id);
    });
}

void DisplayControl::sendDisplayList() {
    if (!SessionLog::takesAnswers(*services_.connection)) return;
    DisplayList list{.displays = physicalDisplays(),
                     .virtualAvailable = settings_.dynamicDisplay && !virtualUnavailable_};
    if (!isDynamic_) list.currentID = currentDisplay_;
    services_.connection->sendJSON(MessageType::displayList, list);
}

std::vector<ServerDisplay> DisplayControl::physicalDisplays() {
    std::vector<ServerDisplay> physical;
    const auto all = services_.displays.list();
    if (!all) return physical;
    for (const Display& display : *all) {
        if (display.isMirror || (virtualDisplay_ && display.id == virtualDisplay_->displayId())) continue;
        physical.push_back({.id = display.id,
                            .name = nameOf(display),
                            .width = display.pixels.width,
                            .height = display.pixels.height});
    }
    return physical;
}

}  // namespace velmora
