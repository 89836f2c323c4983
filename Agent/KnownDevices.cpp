#include "Agent/KnownDevices.h"

#include <utility>

namespace velmora {

void KnownDevices::readPassword(const Device& device, UniqueFunction<void(std::optional<std::string>)> done) {
    auto answer = liveness_.guard(
        [done = std::move(done)](std::optional<std::string> password) mutable { done(std::move(password)); });
    worker_.post(
        [&keychain = keychain_, &main = main_, account = device.id, answer = std::move(answer)]() mutable {
            auto password = keychain.read(Keychain::devicesService, account);
            main.post([password = std::move(password), answer = std::move(answer)]() mutable {
                answer(std::move(password));
            });
        });
}

}  // namespace velmora
