#pragma once

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <string>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

struct VariantUnref {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

/// Calls methods on a message bus and waits for the answer, within a limit; so it lives on a worker queue.
/// Its connection is its own: the one that GLib shares in a process outlives its bus and ends the program
/// with it. What a service gives to a caller (an inhibition) ends with the connection.
class BusCaller {
public:
    enum class Bus { session, system };
    explicit BusCaller(Bus bus, std::chrono::milliseconds limit = std::chrono::seconds(5))
        : bus_(bus), limit_(limit) {}
    ~BusCaller();
    BusCaller(const BusCaller&) = delete;
    BusCaller& operator=(const BusCaller&) = delete;

    struct Target {
        const char* service;
        const char* path;
        const char* interface;
    };
    /// The answer, of type `answer`. `arguments` may be floating. No service is started for the call.
    /// `descriptor`, if asked for, is set to the first file descriptor of the answer, the caller's to close.
    Result<Variant> call(const Target& target, const char* method, GVariant* arguments, const char* answer,
                         int* descriptor = nullptr);
    /// A property of the target.
    Result<Variant> property(const Target& target, const char* name);

private:
    GDBusConnection* connect();

    const Bus bus_;
    const std::chrono::milliseconds limit_;
    GDBusConnection* connection_ = nullptr;
};

}  // namespace velmora
