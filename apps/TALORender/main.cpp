#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <VersionInfo/kyVersionInfo.h>
#include <apps/TALORender/OutputFile.h>
#include <apps/TALORender/PngEncoder.h>
#include <apps/TALORender/ProgressBar.h>
#include <apps/TALORender/RenderArguments.h>
#include <apps/TALORender/RenderCluster.h>
#include <apps/TALORender/RenderReport.h>
#include <apps/TALORender/SceneImport.h>
#include <apps/TALORender/Studio.h>
#include <apps/common/CommandLine.h>
#include <apps/common/Printable.h>
#include <apps/common/SharedKey.h>
#include <apps/common/platform/Terminal.h>
#include <apps/common/platform/TerminationSignal.h>

namespace {

using namespace render;

void complain(const std::string& text)
{
    // The progress bar may stand there; it is drawn anew below.
    terminal::clearErrorLine();
    std::fprintf(stderr, "TALORender: %s\n", printable(text).c_str());
}

RenderCluster::Settings clusterSettings(const RenderArguments& arguments)
{
    RenderCluster::Settings settings;
    for (const std::string& node : arguments.nodes) {
        settings.nodes.push_back(NodeAddress::parse(node));
    }
    settings.servers =
        arguments.servers > 0 ? arguments.servers : static_cast<int>(settings.nodes.size());
    settings.bookingId = arguments.bookingId;
    settings.channels = arguments.channels;
    settings.imageCompression = arguments.imageCompression;
    settings.isRelayed = arguments.isRelayed;
    settings.key = arguments.keyFile ? SharedKey::read(*arguments.keyFile) : nullptr;
    return settings;
}

/// The files for the pictures, each of which can be written.
std::vector<OutputFile> makeOutputs(const RenderArguments& arguments)
{
    std::vector<OutputFile> outputs;
    if (arguments.frames == 1) {
        outputs.emplace_back(arguments.output);
        return outputs;
    }
    for (std::uint32_t number = 1; number <= arguments.frames; ++number) {
        outputs.emplace_back(sequencePath(arguments.output, number));
    }
    return outputs;
}

/// Looks at the model from as many sides as there are frames, beginning at the front.
std::vector<Frame> makeFrames(const RenderArguments& arguments, const Camera& camera)
{
    std::vector<Frame> frames;
    for (std::uint32_t i = 0; i < arguments.frames; ++i) {
        frames.push_back({orbit(camera, 360.0 * i / arguments.frames), arguments.size.width,
                          arguments.size.height, arguments.samples});
    }
    return frames;
}

void run(const RenderArguments& arguments)
{
    const RenderCluster::Settings settings = clusterSettings(arguments);
    const std::vector<OutputFile> outputs = makeOutputs(arguments);
    Mesh model = importMesh(arguments.scene);
    const std::size_t triangles = model.triangles.size();
    const float aspect =
        static_cast<float>(arguments.size.width) / static_cast<float>(arguments.size.height);
    const Studio studio = buildStudio(std::move(model), aspect);

    const auto begin = std::chrono::steady_clock::now();
    RenderCluster cluster(settings, complain);
    cluster.loadScene(studio.scene);
    {
        const ProgressBar progressBar;
        cluster.render(
            makeFrames(arguments, studio.camera), [&](std::size_t i, const Image& image) {
                outputs[i].write(encodePng(image.getWidth(), image.getHeight(), image.develop()));
            });
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    cluster.reportTraffic();
    std::fputs(formatReport(cluster.getServers()).c_str(), stdout);
    const std::string last = outputs.size() > 1 ? " to " + outputs.back().getPath() : "";
    std::printf("%s%s: %ux%u, %u samples per pixel, %zu triangles, %.1f s\n",
                outputs.front().getPath().c_str(), last.c_str(), arguments.size.width,
                arguments.size.height, arguments.samples, triangles, seconds);
}

/// Ends the process at once, from whatever it is doing: the servers notice that it is gone.
void endOnRequest()
{
    OutputFile::abandonAll();
    complain("Interrupted");
    std::_Exit(Failed);
}

} // namespace

int main(int argc, char** argv)
{
    RenderArguments arguments;
    CLI::App program("Renders a picture of a model on the render servers of one or more nodes.");
    program.set_version_flag("--version", kyVersionInfo::the().getVersionString());
    arguments.describe(program);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return report(program, e);
    }
    try {
        const TerminationSignal signal(endOnRequest);
        run(arguments);
        return Done;
    } catch (const std::exception& e) {
        complain(e.what());
        return Failed;
    }
}
