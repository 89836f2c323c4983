#pragma once

#include <memory>

#include "Platform/HttpClient.h"

namespace velmora {

/// HTTP in Qt's event loop, on its thread. TLS trusts what the system trusts. Redirections are not followed:
/// bodies may hold passwords.
class QtHttpClient final : public HttpClient {
public:
    QtHttpClient();
    ~QtHttpClient() override;

    void post(Post request, Completion completion) override;

private:
    struct Manager;
    std::unique_ptr<Manager> manager_;
};

}  // namespace velmora
