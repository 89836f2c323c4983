#include "Testing/PrivateNetwork.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

class Network : public testing::Environment {
public:
    void SetUp() override { enterPrivateNetwork(); }
};

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new Network);

}  // namespace
}  // namespace velmora
