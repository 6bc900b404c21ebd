#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

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
#include <apps/common/platform/Terminal.h>

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
    return settings;
}

void run(const RenderArguments& arguments)
{
    const OutputFile output(arguments.output);
    Mesh model = importMesh(arguments.scene);
    const std::size_t triangles = model.triangles.size();
    const float aspect =
        static_cast<float>(arguments.size.width) / static_cast<float>(arguments.size.height);
    const Studio studio = buildStudio(std::move(model), aspect);

    const auto begin = std::chrono::steady_clock::now();
    RenderCluster cluster(clusterSettings(arguments), complain);
    cluster.loadScene(studio.scene);
    const Image image = [&] {
        const ProgressBar progressBar;
        return cluster.render(
            {studio.camera, arguments.size.width, arguments.size.height, arguments.samples});
    }();
    output.write(encodePng(image.getWidth(), image.getHeight(), image.develop()));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    std::fputs(formatReport(cluster.getServers()).c_str(), stdout);
    std::printf("%s: %ux%u, %u samples per pixel, %zu triangles, %.1f s\n",
                arguments.output.c_str(), arguments.size.width, arguments.size.height,
                arguments.samples, triangles, seconds);
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
        run(arguments);
        return Done;
    } catch (const std::exception& e) {
        complain(e.what());
        return Failed;
    }
}
