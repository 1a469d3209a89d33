// commands.hpp - one function per subcommand that adds it to the app. Each
// subcommand runs from its CLI11 callback and reports faults as ToolError.
#ifndef QVN_TOOL_COMMANDS_HPP
#define QVN_TOOL_COMMANDS_HPP

namespace CLI {
class App;
}

namespace qvntool {

void AddPreprocessCommand(CLI::App& app);
void AddOrientCommand(CLI::App& app);
void AddWarpCommand(CLI::App& app);
void AddMaskCommand(CLI::App& app);
void AddDecodeCommand(CLI::App& app);
void AddTrackCommand(CLI::App& app);
void AddDemoCommand(CLI::App& app);
void AddVideoCommand(CLI::App& app);

}  // namespace qvntool

#endif  // QVN_TOOL_COMMANDS_HPP
