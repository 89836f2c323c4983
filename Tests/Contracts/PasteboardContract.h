#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "Platform/Pasteboard.h"

namespace velmora {

/// What every pasteboard does. A rig has one, and another program that uses it too; `knowsTypes` says whether
/// the owner of a copy need not be asked for them.
template <class Rig>
class PasteboardContract : public testing::Test {
protected:
    PasteboardContract() { types(); }  // it watches from now on at the latest

    Pasteboard& pasteboard() { return rig.pasteboard(); }
    std::vector<std::string> types() {
        std::optional<std::vector<std::string>> found;
        pasteboard().readTypes([&](auto types) { found = std::move(types); });
        EXPECT_TRUE(rig.waitUntil([&] { return found.has_value(); }));
        return found.value_or(std::vector<std::string>());
    }
    Result<Bytes, Pasteboard::Lack> read(const std::string& type, std::size_t most = 64 << 20) {
        std::optional<Result<Bytes, Pasteboard::Lack>> found;
        pasteboard().read(type, most, [&](auto outcome) { found = std::move(outcome); });
        EXPECT_FALSE(found) << "told from inside the call";
        EXPECT_TRUE(rig.waitUntil([&] { return found.has_value(); }));
        return found.value_or(Pasteboard::Lack{});
    }
    static std::optional<Pasteboard::Lack> lackOf(const Result<Bytes, Pasteboard::Lack>& outcome) {
        return outcome ? std::nullopt : std::optional(outcome.error());
    }
    std::string text() { return textOf(read(Pasteboard::Type::text).valueOr({})); }
    std::vector<std::filesystem::path> files() {
        std::optional<std::vector<std::filesystem::path>> found;
        pasteboard().readFiles([&](auto files) { found = std::move(files); });
        EXPECT_TRUE(rig.waitUntil([&] { return found.has_value(); }));
        return found.value_or(std::vector<std::filesystem::path>());
    }
    /// Has the other program copy, and waits until that has been told.
    template <class Copy>
    void expectChange(Copy copy) {
        const auto before = pasteboard().changeCount();
        int told = 0;
        const auto observation = pasteboard().observe([&] { ++told; });
        copy();
        ASSERT_TRUE(rig.waitUntil([&] { return told > 0; }));
        EXPECT_NE(pasteboard().changeCount(), before);
    }
    static Bytes noise(std::size_t size) {
        Bytes bytes(size);
        std::uint32_t state = 1;
        for (auto& byte : bytes)
            byte = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
        return bytes;
    }

    Rig rig;
};

TYPED_TEST_SUITE_P(PasteboardContract);

TYPED_TEST_P(PasteboardContract, whatAnotherProgramCopiesIsToldAndRead) {
    EXPECT_THAT(this->types(), testing::IsEmpty());
    EXPECT_EQ(this->lackOf(this->read(Pasteboard::Type::text)), Pasteboard::Lack{});
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::text, bytesOf("é€😀\n")}}); });
    EXPECT_EQ(this->text(), "é€😀\n");
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::png, {0x89, 'P', 0, 0xFF}}}); });
    EXPECT_THAT(this->types(), testing::Contains(Pasteboard::Type::png));
    EXPECT_EQ(*this->read(Pasteboard::Type::png), (Bytes{0x89, 'P', 0, 0xFF}));
    this->expectChange([&] {
        this->rig.copyElsewhere({{"text/html", {'b'}}, {Pasteboard::Type::text, {'a'}}});
    });
    EXPECT_THAT(this->types(),
                testing::IsSupersetOf({std::string("text/html"), std::string(Pasteboard::Type::text)}));
    EXPECT_EQ(this->lackOf(this->read(Pasteboard::Type::png)), Pasteboard::Lack{});
}

TYPED_TEST_P(PasteboardContract, whatIsWrittenIsPastedElsewhereAndCountsAtOnce) {
    const auto before = this->pasteboard().changeCount();
    this->pasteboard().write({{Pasteboard::Type::text, bytesOf("é€")},
                              {"text/html", bytesOf("<b>é€</b>")},
                              {"text/rtf", bytesOf("{\\rtf1}")},
                              {Pasteboard::Type::png, {1, 0, 2}}});
    const auto after = this->pasteboard().changeCount();
    EXPECT_NE(after, before);
    EXPECT_EQ(this->text(), "é€") << "own content";
    EXPECT_EQ(textOf(this->rig.pasteElsewhere(Pasteboard::Type::text).value_or(Bytes())), "é€");
    EXPECT_EQ(textOf(this->rig.pasteElsewhere("text/html").value_or(Bytes())), "<b>é€</b>");
    EXPECT_EQ(textOf(this->rig.pasteElsewhere("text/rtf").value_or(Bytes())), "{\\rtf1}");
    EXPECT_EQ(this->rig.pasteElsewhere(Pasteboard::Type::png), (Bytes{1, 0, 2}));
    this->types();
    EXPECT_EQ(this->pasteboard().changeCount(), after) << "our own writing is no other program's copy";
}

TYPED_TEST_P(PasteboardContract, largeContentsGoBothWays) {
    const Bytes large = this->noise(3'000'000);
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::png, large}}); });
    EXPECT_TRUE(*this->read(Pasteboard::Type::png) == large);
    const auto refused = this->read(Pasteboard::Type::png, 1'000'000);
    ASSERT_FALSE(refused);
    EXPECT_GT(refused.error().tooLong, 1'000'000u);
    this->pasteboard().write({{Pasteboard::Type::png, large}});
    this->types();  // it is written when this comes back
    EXPECT_TRUE(this->rig.pasteElsewhere(Pasteboard::Type::png) == large);
}

TYPED_TEST_P(PasteboardContract, onlyWhatFitsTheLimitIsRead) {
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::text, Bytes(1000, 'a')}}); });
    EXPECT_TRUE(this->read(Pasteboard::Type::text, 1000));
    EXPECT_EQ(this->lackOf(this->read(Pasteboard::Type::text, 999)), Pasteboard::Lack{.tooLong = 1000});
}

TYPED_TEST_P(PasteboardContract, filesGoBothWaysWhateverTheirNames) {
    const std::vector<std::filesystem::path> names{"/tmp/a b%20\n#?é.txt", "/tmp/plain"};
    this->expectChange([&] { this->rig.copyFilesElsewhere(names); });
    EXPECT_THAT(this->types(), testing::Contains(Pasteboard::Type::files));
    EXPECT_EQ(this->files(), names);
    this->pasteboard().writeFiles({"/tmp/other"});
    EXPECT_THAT(this->files(), testing::ElementsAre("/tmp/other"));
    EXPECT_TRUE(this->rig.pasteElsewhere(Pasteboard::Type::files));
}

TYPED_TEST_P(PasteboardContract, clearingLeavesNothing) {
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::text, bytesOf("a")}}); });
    this->pasteboard().clear();
    this->types();
    EXPECT_EQ(this->lackOf(this->read(Pasteboard::Type::text)), Pasteboard::Lack{});
    EXPECT_FALSE(this->rig.pasteElsewhere(Pasteboard::Type::text));
}

TYPED_TEST_P(PasteboardContract, aSilentOwnerIsGivenUp) {
    this->expectChange([&] { this->rig.copyElsewhere({{Pasteboard::Type::text, bytesOf("a")}}); });
    this->rig.fallSilent();
    if (!TypeParam::knowsTypes) {
        EXPECT_THAT(this->types(), testing::IsEmpty());
    }
    EXPECT_EQ(this->lackOf(this->read(Pasteboard::Type::text)), Pasteboard::Lack{});
}

REGISTER_TYPED_TEST_SUITE_P(PasteboardContract, whatAnotherProgramCopiesIsToldAndRead,
                            whatIsWrittenIsPastedElsewhereAndCountsAtOnce, largeContentsGoBothWays,
                            onlyWhatFitsTheLimitIsRead, filesGoBothWaysWhateverTheirNames,
                            clearingLeavesNothing, aSilentOwnerIsGivenUp);

}  // namespace velmora
