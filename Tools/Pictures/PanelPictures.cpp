#include "Tools/Pictures/PanelPictures.h"

#include <fmt/format.h>

#include <QApplication>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

#include "App/MenuPanelController.h"
#include "Testing/FakeStatusItem.h"
#include "Testing/PanelModels.h"

namespace velmora {

namespace {

using Kind = HostSignaling::Status::Kind;

QWidget* panelWindow() {
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window->isVisible() && window->windowTitle() == QLatin1String("Velmora")) return window;
    }
    return nullptr;
}

/// One picture: a name, and what makes the models so.
struct Scene {
    std::string name;
    PanelModels::Keyring keyring = PanelModels::Keyring::open;
    std::function<void(PanelModels&)> prepare;
};

void run(PanelModels& models) {
    models.change([](MenuModel::State& state) {
        state.serverRunning = true;
        state.serverStatus = "Running · waiting for a viewer";
        state.idStatus.kind = Kind::online;
    });
}

void populate(PanelModels& models) {
    models.advertise("Living Room", "macmini");
    models.save("Anna's Laptop", "123456789", "macbook");
    models.save("Office Tower", "234567891", "macpro");
    models.save("Studio", "345678912", "macstudio");
    models.save("Kitchen", "456789123", "imac");
    models.tellStatus(R"({"id":"123456789","online":true},{"id":"234567891","online":false})");
}

std::vector<Scene> scenes() {
    return {
        {.name = "panel-first", .prepare = [](PanelModels&) {}},
        {.name = "panel-usual",
         .prepare =
             [](PanelModels& models) {
                 run(models);
                 populate(models);
             }},
        {.name = "panel-connected",
         .prepare =
             [](PanelModels& models) {
                 run(models);
                 populate(models);
                 models.change([](MenuModel::State& state) { state.connectedViewer = "Anna's MacBook"; });
             }},
        {.name = "panel-trouble",
         .prepare =
             [](PanelModels& models) {
                 models.change([](MenuModel::State& state) {
                     state.serverRunning = true;
                     state.serverStatus = "Port 47272 is in use. Is another copy of Velmora running?";
                     state.idStatus = {Kind::offline, "Can't reach Velmora Cloud (timed out)"};
                 });
             }},
        {.name = "panel-offline",
         .prepare =
             [](PanelModels& models) {
                 run(models);
                 models.change([](MenuModel::State& state) {
                     state.idStatus = {Kind::offline, "Can't reach Velmora Cloud (timed out)"};
                 });
             }},
        {.name = "panel-locked",
         .keyring = PanelModels::Keyring::locked,
         .prepare =
             [](PanelModels& models) {
                 models.change([](MenuModel::State& state) { state.idStatus.kind = Kind::connecting; });
             }},
        {.name = "panel-many",
         .prepare =
             [](PanelModels& models) {
                 run(models);
                 models.advertise(std::string(300, 'w'));
                 models.advertise("one\nline\tonly \x1b[31m & <b>plain</b>");
                 for (int i = 0; i < 100; ++i)
                     models.save(fmt::format("Machine {:03}", i), fmt::format("{}", 100'000'000 + i));
                 models.change(
                     [](MenuModel::State& state) { state.connectedViewer = std::string(300, 'v'); });
             }},
    };
}

}  // namespace

void takePanelPictures(PictureFolder& folder) {
    for (const Scene& scene : scenes()) {
        PanelModels models(scene.keyring);
        FakeStatusItem item;
        MenuPanelController panel(models.model, models.identity, models.devices, item, models.main);
        scene.prepare(models);
        panel.show();
        if (QWidget* window = panelWindow()) folder.take(*window, scene.name);
    }
}

}  // namespace velmora
