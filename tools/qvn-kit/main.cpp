// main.cpp - qvn-kit: the kit's functions on real files.
//
// Every fault the user can cause ends as one line "qvn-kit: <problem>" on
// stderr and a non-zero exit code; outputs are written through temporary
// files, so a failed run leaves no partial file behind.
#include "commands.hpp"
#include "common.hpp"

#include <qvn_kit/qvn_kit.h>
#include <quvas/utility/log.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <new>

int main(int argc, char** argv) {
    qvntool::InstallLogRoute();
    CLI::App app{"qvn-kit - runs libqvn_kit on images, raw frames, NumPy arrays and box "
                 "tracks"};
    app.name("qvn-kit");
    app.require_subcommand(1);
    app.add_flag_callback(
        "--version",
        [] {
            uint32_t kit_major = 0, kit_minor = 0;
            int32_t match = QVN_GetKitVersion(&kit_major, &kit_minor);
            unsigned core_major = 0, core_minor = 0;
            QVN_Get_Core_Version(core_major, core_minor);
            std::printf("qvn-kit %s\nkit %u.%u\ncore %u.%u%s\n", QVN_TOOL_VERSION, kit_major,
                        kit_minor, core_major, core_minor,
                        match == 0 ? "" : " (does not match the kit)");
            throw CLI::Success();
        },
        "Print the tool, kit and core versions and exit");
    qvntool::AddPreprocessCommand(app);
    qvntool::AddOrientCommand(app);
    qvntool::AddWarpCommand(app);
    qvntool::AddMaskCommand(app);
    qvntool::AddDecodeCommand(app);
    qvntool::AddTrackCommand(app);
    qvntool::AddDemoCommand(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qvn-kit: %s (see --help)\n", e.what());
        return qvntool::kExitUsage;
    } catch (const qvntool::ToolError& e) {
        std::fprintf(stderr, "qvn-kit: %s\n", e.what());
        return e.code();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "qvn-kit: out of memory\n");
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvn-kit: %s\n", e.what());
        return 1;
    }
    return 0;
}
