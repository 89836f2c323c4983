#include "Platform/Linux/Secrets/SecretsFile.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"
#include "VelmoraKit/Core/Base64.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using Json = nlohmann::json;
constexpr std::size_t maxFileSize = 4 << 20;

std::optional<std::string> textAt(const Json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::optional<std::pair<SecretName, SecretsFile::Entry>> entryOf(const Json& object) {
    if (!object.is_object()) return std::nullopt;
    auto service = textAt(object, "service");
    auto account = textAt(object, "account");
    if (!service || !account) return std::nullopt;
    const SecretName name{*std::move(service), *std::move(account)};
    const auto text = textAt(object, "value");
    if (!text) return std::pair(name, SecretsFile::Entry{});
    auto value = bytesOfBase64(*text);
    if (!value) return std::nullopt;
    return std::pair(name, SecretsFile::Entry{std::move(value)});
}

std::optional<SecretsFile::Entries> entriesOf(std::string_view text) {
    const Json root = Json::parse(text, nullptr, false);
    if (!root.is_array()) return std::nullopt;
    SecretsFile::Entries entries;
    for (const Json& object : root) {
        auto entry = entryOf(object);
        if (!entry) return std::nullopt;
        entries.insert(*std::move(entry));
    }
    return entries;
}

std::string textOf(const SecretsFile::Entries& entries) {
    Json root = Json::array();
    for (const auto& [name, entry] : entries) {
        Json object{{"service", name.service}, {"account", name.account}};
        if (entry.value) object["value"] = base64Of(*entry.value);
        root.push_back(std::move(object));
    }
    return root.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::filesystem::path withSuffix(std::filesystem::path path, std::string_view suffix) {
    path += suffix;
    return path;
}

}  // namespace

SecretsFile::SecretsFile(std::filesystem::path file) : file_(std::move(file)) {}

Result<SecretsFile::Entries> SecretsFile::read() {
    return readUnlocked();
}

Result<SecretsFile::Entries> SecretsFile::readUnlocked() {
    const auto content = readPrivateFile(file_, maxFileSize);
    if (!content) return content.error();
    if (!*content) return Entries();
    if (auto entries = entriesOf(velmora::textOf(**content))) return *std::move(entries);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto aside = withSuffix(
        file_, fmt::format(".bad-{}", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()));
    std::error_code error;
    std::filesystem::rename(file_, aside, error);
    if (error) return Failure{error.message(), error.value()};
    debugLog(fmt::format("⚠︎ The file of secrets could not be read; kept as {}", aside.string()));
    return Entries();
}

Status SecretsFile::change(const std::function<void(Entries&)>& edit) {
    if (auto made = makePrivateFolder(file_.parent_path()); !made) return made;
    const auto lock = FileLock::take(withSuffix(file_, ".lock"));
    if (!lock) return lock.error();
    auto entries = readUnlocked();
    if (!entries) return entries.error();
    Entries edited = *entries;
    edit(edited);
    if (edited == *entries) return Done{};
    return replacePrivateFile(file_, viewOf(textOf(edited)));
}

}  // namespace velmora
