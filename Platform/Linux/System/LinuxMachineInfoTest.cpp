#include "Platform/Linux/System/LinuxMachineInfo.h"

#include <gtest/gtest.h>

#include <fstream>

#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

class LinuxMachineInfoTest : public testing::Test {
protected:
    void put(const std::string& file, std::string_view text) {
        std::filesystem::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text;
    }
    ScratchFolder root;
    LinuxMachineInfo machine{root.path()};
};

TEST_F(LinuxMachineInfoTest, thePrettyNameIsTakenAsAPersonWroteIt) {
    put("etc/machine-info",
        "ICON_NAME=computer\nPRETTY_HOSTNAME=\"Jürgen's \\\"big\\\" Mac\"\nCHASSIS=desktop\n");
    EXPECT_EQ(machine.localizedName(), "Jürgen's \"big\" Mac");
    EXPECT_EQ(LinuxMachineInfo::prettyHostnameIn("PRETTY_HOSTNAME='Studio'"), "Studio");
    EXPECT_EQ(LinuxMachineInfo::prettyHostnameIn("PRETTY_HOSTNAME=Studio \n"), "Studio");
    EXPECT_EQ(LinuxMachineInfo::prettyHostnameIn("#PRETTY_HOSTNAME=x\nPRETTY_HOSTNAME=\"\"\n"), "");
    EXPECT_EQ(LinuxMachineInfo::prettyHostnameIn("PRETTY_HOSTNAME=\"\\"), "\"\\");
    put("etc/machine-info", "");
    EXPECT_FALSE(machine.localizedName().empty());
    EXPECT_EQ(machine.localizedName().find('.'), std::string::npos);
}

TEST_F(LinuxMachineInfoTest, theCaseTypeTellsTheKindAndNothingElseDoes) {
    EXPECT_EQ(machine.kind(), std::nullopt);
    put("sys/class/dmi/id/chassis_type", "10\n");
    EXPECT_EQ(machine.kind(), MacKind::macbook);
    put("sys/class/dmi/id/chassis_type", "13\n");
    EXPECT_EQ(machine.kind(), MacKind::imac);
    for (const auto* text : {"1\n", "", "10x", "-"}) {
        put("sys/class/dmi/id/chassis_type", text);
        EXPECT_EQ(machine.kind(), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace velmora
