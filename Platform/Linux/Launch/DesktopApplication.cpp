#include "Platform/Linux/Launch/DesktopApplication.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <tuple>

namespace velmora {
namespace {

struct GFree {
    void operator()(void* memory) const { g_free(memory); }
};
struct GUnref {
    void operator()(void* object) const { g_object_unref(object); }
};
using GText = std::unique_ptr<char, GFree>;
template <class T>
using GRef = std::unique_ptr<T, GUnref>;

std::string textOf(const char* text) {
    return text ? text : "";
}

std::string folded(const std::string& text) {
    return textOf(GText(g_utf8_casefold(text.c_str(), static_cast<gssize>(text.size()))).get());
}

std::string entryOf(GAppInfo* info, const char* key) {
    if (!G_IS_DESKTOP_APP_INFO(info)) return {};
    return textOf(GText(g_desktop_app_info_get_string(G_DESKTOP_APP_INFO(info), key)).get());
}

DesktopApplication applicationOf(GAppInfo* info) {
    return {.name = textOf(g_app_info_get_name(info)),
            .command = textOf(g_app_info_get_commandline(info)),
            .icon = entryOf(info, "Icon"),
            .file = G_IS_DESKTOP_APP_INFO(info)
                        ? textOf(g_desktop_app_info_get_filename(G_DESKTOP_APP_INFO(info)))
                        : "",
            .folder = entryOf(info, "Path"),
            .needsTerminal = G_IS_DESKTOP_APP_INFO(info) &&
                             g_desktop_app_info_get_boolean(G_DESKTOP_APP_INFO(info), "Terminal")};
}

std::optional<DesktopApplication> given(GAppInfo* info) {
    const GRef<GAppInfo> owner(info);
    if (!info) return std::nullopt;
    return applicationOf(info);
}

/// How surely an application is meant by what was written; 0: not at all. `wanted` is folded.
int likenessOf(GAppInfo* info, const std::string& wanted) {
    // "org.example.Editor.desktop" is the editor's too.
    std::string id = textOf(g_app_info_get_id(info));
    if (id.ends_with(".desktop")) id.resize(id.size() - std::string(".desktop").size());
    const std::string lastOfId = id.substr(id.rfind('.') + 1);
    const GText program(g_path_get_basename(textOf(g_app_info_get_executable(info)).c_str()));
    const std::string name = folded(textOf(g_app_info_get_name(info)));

    for (const auto& own :
         {name, folded(textOf(g_app_info_get_display_name(info))), folded(entryOf(info, "Name"))})
        if (own == wanted) return 5;
    for (const auto& own : {id, lastOfId, textOf(program.get())})
        if (folded(own) == wanted) return 4;
    const bool isGeneric =
        G_IS_DESKTOP_APP_INFO(info) &&
        folded(textOf(g_desktop_app_info_get_generic_name(G_DESKTOP_APP_INFO(info)))) == wanted;
    if (isGeneric) return 3;
    if (name.starts_with(wanted)) return 2;
    return name.find(" " + wanted) != std::string::npos ? 1 : 0;
}

/// What an environment holds for us alone: the marks of who started us, and our own settings.
bool isOurs(const std::string& variable) {
    static constexpr const char* names[] = {"DESKTOP_STARTUP_ID",
                                            "XDG_ACTIVATION_TOKEN",
                                            "GIO_LAUNCHED_DESKTOP_FILE",
                                            "GIO_LAUNCHED_DESKTOP_FILE_PID",
                                            "NOTIFY_SOCKET",
                                            "LISTEN_FDS",
                                            "LISTEN_PID",
                                            "LISTEN_FDNAMES",
                                            "INVOCATION_ID",
                                            "JOURNAL_STREAM",
                                            "MAINPID",
                                            "LD_PRELOAD"};
    const std::string name = variable.substr(0, variable.find('='));
    return name.starts_with("VELMORA_") || std::ranges::find(names, name) != std::end(names);
}

/// Between fork and exec: nothing but what a signal handler may do.
void becomeIndependent(gpointer) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);  // our threads block what ends us
    setsid();
}

}  // namespace

std::optional<DesktopApplication> DesktopApplication::named(const std::string& name) {
    const std::string wanted = folded(name);
    if (wanted.empty()) return std::nullopt;
    std::optional<DesktopApplication> best;
    std::tuple<int, std::size_t, std::string> bestRank;  // lower is better; the file makes it always the same
    GList* const all = g_app_info_get_all();
    for (GList* entry = all; entry; entry = entry->next) {
        auto* const info = static_cast<GAppInfo*>(entry->data);
        const int likeness = g_app_info_should_show(info) ? likenessOf(info, wanted) : 0;
        if (likeness == 0) continue;
        DesktopApplication application = applicationOf(info);
        std::tuple rank(-likeness, application.name.size(), application.file);
        if (best && rank >= bestRank) continue;
        best = std::move(application);
        bestRank = std::move(rank);
    }
    g_list_free_full(all, g_object_unref);
    return best;
}

std::optional<DesktopApplication> DesktopApplication::forFile(const std::string& path) {
    const GRef<GFile> file(g_file_new_for_path(path.c_str()));
    return given(g_file_query_default_handler(file.get(), nullptr, nullptr));
}

std::optional<DesktopApplication> DesktopApplication::forScheme(const std::string& scheme) {
    return given(g_app_info_get_default_for_uri_scheme(scheme.c_str()));
}

std::vector<std::string> DesktopApplication::argumentsFor(const std::optional<std::string>& target) const {
    int count = 0;
    char** words = nullptr;
    if (!g_shell_parse_argv(command.c_str(), &count, &words, nullptr)) return {};
    std::vector<std::string> arguments;
    if (needsTerminal) arguments = {"x-terminal-emulator", "-e"};
    for (int i = 0; i < count; ++i) {
        const std::string word = words[i];
        if (word == "%f" || word == "%F" || word == "%u" || word == "%U") {
            if (target) arguments.push_back(*target);
        } else if (word == "%i") {
            if (!icon.empty()) arguments.insert(arguments.end(), {"--icon", icon});
        } else {
            std::string written;
            for (std::size_t at = 0; at < word.size(); ++at) {
                if (word[at] != '%') {
                    written += word[at];
                    continue;
                }
                const char code = ++at < word.size() ? word[at] : '\0';
                if (code == '%') written += '%';
                if (code == 'c') written += name;
                if (code == 'k') written += file;
                if (target && (code == 'f' || code == 'u')) written += *target;
            }
            if (!written.empty() || word.find('%') == std::string::npos) arguments.push_back(written);
        }
    }
    g_strfreev(words);
    return arguments;
}

Status startProgram(const std::vector<std::string>& arguments, const std::string& folder) {
    std::vector<char*> words;
    for (const std::string& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    gchar** const inherited = g_get_environ();
    std::vector<char*> environment;
    for (gchar** variable = inherited; *variable; ++variable)
        if (!isOurs(*variable)) environment.push_back(*variable);
    environment.push_back(nullptr);
    GError* error = nullptr;
    constexpr auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                                                    G_SPAWN_STDERR_TO_DEV_NULL);
    const bool isStarted =
        g_spawn_async(folder.empty() ? g_get_home_dir() : folder.c_str(), words.data(), environment.data(),
                      flags, becomeIndependent, nullptr, nullptr, &error);
    g_strfreev(inherited);
    if (isStarted) return Done{};
    Failure failure{error->message, error->code};
    g_error_free(error);
    return failure;
}

}  // namespace velmora
