// `sorvan camera ID -o FILE.png`: builds one camera's view as an application gets it and
// writes what it shows: the web picture of a still or moving camera, or a decoded frame of a
// live one with its sponsor's banner.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "command.hpp"
#include "foundation/number_text.hpp"
#include "live_annotations.hpp"
#include "options.hpp"
#include "output_file.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/platform/ui/web_view.hpp"

namespace sorvan::cli {
namespace {

struct CameraOptions {
    std::string id;
    double width = 640, height = 360;
    double wait = 30;
    std::string output;
};

template <class T>
std::shared_ptr<T> subviewOf(const ui::View& container) {
    for (const auto& v : container.subviews()) {
        if (auto t = std::dynamic_pointer_cast<T>(v)) {
            return t;
        }
    }
    return nullptr;
}

// Why the view shows nothing yet after waiting, or nullopt once it shows its picture.
std::optional<std::string> waitForPicture(ui::View& container, const SMCameraAnnotation& camera,
                                          double seconds) {
    using namespace std::chrono;
    auto deadline =
        steady_clock::now() + duration_cast<steady_clock::duration>(duration<double>(seconds));
    auto left = [&] {
        return std::max(duration<double>(deadline - steady_clock::now()), duration<double>(0));
    };
    std::string address = camera.url() ? camera.url()->absoluteString() : "(no address)";
    if (auto web = subviewOf<ui::WebView>(container)) {
        if (!web->waitUntilLoaded(left())) {
            return "the picture did not load within " + strformat("%g", seconds) + " s (" +
                   address + ")";
        }
        return std::nullopt;
    }
    auto layer = subviewOf<media::PlayerLayer>(container);
    if (!layer || !layer->player()) {
        return std::string("the view holds no picture");
    }
    if (!layer->player()->waitForFirstFrame(left())) {
        auto error = layer->player()->error();
        return "no video frame from " + address + ": " +
               (error ? error->description : "nothing within " + strformat("%g", seconds) + " s");
    }
    // The banner comes on its own; the video is fitted to the view a second after it.
    dispatch::RunLoop::main().runUntil([] { return liveSettled(); }, left());
    container.layoutIfNeeded();
    dispatch::RunLoop::main().runUntil([] { return false; }, duration<double>(1.2));
    return std::nullopt;
}

Runner setupCamera(CLI::App& app) {
    app.description(
        "Loads the camera feed, builds the view an application gets for one camera and\n"
        "writes what it shows as a PNG: a still or moving camera's picture as a browser\n"
        "shows it, or a live camera's decoded video with its sponsor's banner at the\n"
        "bottom.");
    auto o = std::make_shared<CameraOptions>();
    app.add_option("ID", o->id, "the camera's id (see `sorvan cameras`)")->required();
    app.add_option_function<std::string>(
           "--size",
           [o](const std::string& v) {
               auto x = v.find('x');
               auto w = x == std::string::npos ? std::nullopt
                                               : text::parseInteger(v.substr(0, x), 1, 4096);
               auto h = x == std::string::npos ? std::nullopt
                                               : text::parseInteger(v.substr(x + 1), 1, 4096);
               if (!w || !h) {
                   throw CLI::ValidationError("--size wants WxH in points, 1 to 4096 each, got '" +
                                              v + "'");
               }
               o->width = static_cast<double>(*w);
               o->height = static_cast<double>(*h);
           },
           "size of the view in points (default 640x360)")
        ->type_name("WxH");
    addNumber(app, "--wait", o->wait,
              "how long to wait for the feed and then the picture, in seconds (default 30)", 0.1,
              3600);
    app.add_option("-o,--output", o->output, "the PNG to write")->required()->type_name("FILE");
    return [o](const Context& context) -> int {
        LiveFailures failures;
        auto view = SorvanMapView::create({0, 0, 800, 600});
        view->setShowsCameras(true);
        dispatch::RunLoop::main().runUntil([] { return liveSettled(); },
                                           dispatch::Duration(o->wait));
        if (auto first = failures.firstCameraError()) {
            return failure(context.name, "the camera feed failed: " + *first);
        }
        if (!liveSettled()) {
            return failure(context.name, "the camera feed did not answer within " +
                                             strformat("%g", o->wait) + " s (" +
                                             ServiceConfig::current().cameraFeed + ")");
        }
        std::shared_ptr<SMCameraAnnotation> camera;
        for (const auto& c : camerasOf(*view)) {
            if (c->cameraId() == o->id) {
                camera = c;
                break;
            }
        }
        if (!camera) {
            return failure(context.name, "the camera feed has no camera '" + o->id + "'");
        }
        auto shown = view->getVDOViewFromCameraData(camera);
        shown->setFrame({0, 0, o->width, o->height});
        shown->setBackgroundColor(gfx::Color::black());
        if (auto problem = waitForPicture(*shown, *camera, o->wait)) {
            return failure(context.name, *problem);
        }
        gfx::ImageContext drawing({o->width, o->height}, 1.0);
        shown->layoutIfNeeded();
        shown->drawHierarchy(drawing.cairo());
        auto image = drawing.makeImage();
        if (auto problem = writeOutputFile(o->output, image->pngData())) {
            return failure(context.name, "cannot write " + o->output + ": " + *problem);
        }
        return kSuccess;
    };
}

const Command::Registration registration{
    {"camera", "write a PNG of what one traffic camera's view shows",
     "the feed, the camera, its picture or the file failed", setupCamera}};

}  // namespace
}  // namespace sorvan::cli
