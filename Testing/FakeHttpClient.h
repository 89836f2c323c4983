#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Platform/HttpClient.h"

namespace velmora {

/// Keeps the requests; the test answers them.
class FakeHttpClient final : public HttpClient {
public:
    std::vector<Post> requests;

    void post(Post request, Completion completion) override {
        requests.push_back(std::move(request));
        completions_.push_back(std::move(completion));
    }
    void answer(std::size_t request, const std::string& body, int status = 200) {
        completions_.at(request)(Response{.status = status, .body = bytesOf(body)});
    }
    void fail(std::size_t request) { completions_.at(request)(Failure{"timed out"}); }

private:
    std::vector<Completion> completions_;
};

}  // namespace velmora
