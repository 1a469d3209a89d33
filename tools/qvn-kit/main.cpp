// main.cpp - qvn-kit: the kit's functions on real files.
//
// Every fault the user can cause ends as one line "qvn-kit: <problem>" on
// stderr and a non-zero exit code; outputs are prepared in temporary files
// and moved into place only when the whole run succeeded, so a failed run
// leaves no file behind. A line logged by the library is a refusal and fails
// the run (exit 5) even where a command did not check for it itself.
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
    // Global limits, accepted before or after the subcommand.
    app.fallthrough();
    qvntool::Limits& limits = qvntool::ToolLimits();
    app.add_option("--max-pixels", limits.max_pixels,
                   "Largest picture, frame, crop, tensor or warp output in pixels (67108864)")
        ->check(CLI::Range(uint64_t{1}, uint64_t{0x7FFFFFFF}));
    app.add_option_function<uint64_t>(
           "--max-input-mb", [&limits](const uint64_t& mb) { limits.max_input_bytes = mb << 20; },
           "Largest input file in MiB (1024)")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1} << 20));
    qvntool::AddPreprocessCommand(app);
    qvntool::AddOrientCommand(app);
    qvntool::AddWarpCommand(app);
    qvntool::AddMaskCommand(app);
    qvntool::AddDecodeCommand(app);
    qvntool::AddTrackCommand(app);
    qvntool::AddDemoCommand(app);
    qvntool::AddVideoCommand(app);

    int code = 0;
    try {
        app.parse(argc, argv);
        qvntool::CheckLibrary("the library refused the input");
        qvntool::CommitOutputs();
        qvntool::FlushNotices();
        return 0;
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qvn-kit: %s (see --help)\n", e.what());
        code = qvntool::kExitUsage;
    } catch (const qvntool::ToolError& e) {
        std::fprintf(stderr, "qvn-kit: %s\n", e.what());
        code = e.code();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "qvn-kit: out of memory\n");
        code = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvn-kit: %s\n", e.what());
        code = 1;
    }
    qvntool::DiscardOutputs();
    return code;
}
