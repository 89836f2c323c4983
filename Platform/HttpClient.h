#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Single requests by HTTP or HTTPS. Called on the main queue.
class HttpClient {
public:
    struct Post {
        std::string url;
        std::string contentType;
        Bytes body;
        std::chrono::milliseconds timeout{8'000};  // for the whole exchange
    };
    struct Response {
        int status = 0;
        Bytes body;
    };
    /// A longer answer is a failure.
    static constexpr std::size_t longestBody = 1 << 20;
    using Completion = std::function<void(Result<Response>)>;

    virtual ~HttpClient() = default;

    /// `completion` runs once, on the main queue and never from inside the call: with a failure when there
    /// was no whole answer in time. An answer of any status is no failure. Nothing runs once the client is
    /// gone.
    virtual void post(Post request, Completion completion) = 0;
};

}  // namespace velmora
