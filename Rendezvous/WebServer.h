#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Rendezvous/TlsContext.h"
#include "Rendezvous/WebContext.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Listens for clients and spreads them over its threads.
///
/// Owned by main. Opening, reloading and closing on main's thread; sessions run on threads of its own.
class WebServer {
public:
    struct Options {
        std::vector<std::string> listen;  // "address:port"; "[::]:443" takes IPv4 too; port 0: any
        TlsContext tls;                   // none: in the clear
        unsigned threads = 1;
    };

    /// The context outlives it. Before it is destroyed it is closed, and after that the logic's queue has
    /// ended, since that may still hold sessions.
    static Result<std::unique_ptr<WebServer>> open(Options options, WebContext& context);
    ~WebServer();

    /// Of the first address.
    std::uint16_t port() const;
    /// For connections from now on.
    void useTls(TlsContext tls);
    /// Listens no more, and tells every client that it may come back, perhaps to another node. Waits until
    /// all are gone, but not for long.
    void close();

private:
    struct Inside;
    explicit WebServer(std::unique_ptr<Inside> inside);
    std::unique_ptr<Inside> inside_;
};

}  // namespace velmora
