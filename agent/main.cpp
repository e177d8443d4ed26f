// mod-agent: runs the Mirror-on-Drop feature on a Linux host. See --help.
#include <CLI/CLI.hpp>
#include <iostream>

#include "agent/Agent.h"
#include "agent/ConfigFile.h"
#include "mirror_on_drop/MirrorOnDropNames.h"  // the trace handles, for the help
#include "platform/core/Trace.h"

namespace {

int usage(std::string const& error) {
  std::cerr << "mod-agent: " << error << "\n(see mod-agent --help)" << std::endl;
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "mod-agent: runs the Mirror-on-Drop feature on this host: reads mirrored drop frames (live capture\n"
      "or a capture file), tracks their flows in shared-memory tables and sends START and STOP reports\n"
      "to the configured collectors. SIGHUP reloads the configuration; SIGINT and SIGTERM stop it.",
      "mod-agent"};
  std::string configFile, stateDir, trace, plugin;
  bool checkOnly = false;
  // Required, but checked after the parse: an unknown option is the better first thing to say.
  app.add_option("-c,--config", configFile,
                 "the TOML configuration file, required (see examples/mod-agent.toml)")
      ->check(CLI::ExistingFile);
  app.add_option("--state-dir", stateDir,
                 "where the shared tables and the ring trace live (overrides the file)");
  app.add_option("--trace", trace,
                 "trace levels, e.g. \"MOD-Manager=0-4,*=0-1\" (overrides the file); handles: " +
                     MirrorOnDrop::TraceName::list());
  app.add_option("--plugin", plugin,
                 "the plug-in library; by default the first found of libmirror_on_drop.so, "
                 "../mirror_on_drop/libmirror_on_drop.so, ../lib/mirror-on-drop/libmirror_on_drop.so and "
                 "../lib/libmirror_on_drop.so beside the program (here: " +
                     ModAgent::Agent::pluginDefaultPath() + ")");
  app.add_flag("--check-config", checkOnly, "check the configuration, print every error, and exit");
  app.set_version_flag("--version", std::string("mod-agent ") + MOD_VERSION);
  app.footer(
      "Exit status: 0 stopped cleanly; 1 could not start (plug-in, another agent holds the state directory,\n"
      "or a capture to replay on the virtual clock cannot be read); 2 bad command line or configuration, or\n"
      "a state directory others can change; 3 a shared table was found damaged while running (the next\n"
      "start moves it to <state_dir>/damaged-<time>/ and starts afresh).");
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    return usage(e.what());
  }
  if (configFile.empty()) return usage("a configuration file is required: -c FILE or --config FILE");
  if (!trace.empty()) {
    if (std::string const why = ModAgent::ConfigFile::traceLevelsCheck(trace); !why.empty())
      return usage("--trace: " + why);
  }

  // The file, with the command line's overrides; the same on every reload.
  ModAgent::ConfigLoader const loader = [&](std::string const& file, ModAgent::AgentConfig& c,
                                            std::vector<std::string>& errors) {
    if (!ModAgent::ConfigFile::load(file, c, errors)) return false;
    if (!stateDir.empty()) c.stateDir = stateDir;
    if (!trace.empty()) c.traceLevels = trace;
    return true;
  };
  ModAgent::AgentConfig config;
  std::vector<std::string> errors;
  if (!loader(configFile, config, errors)) {
    for (auto const& e : errors) std::cerr << e << std::endl;
    return 2;
  }
  if (checkOnly) {
    std::cout << "configuration OK" << std::endl;
    return 0;
  }
  ModAgent::Agent agent(std::move(config), plugin.empty() ? ModAgent::Agent::pluginDefaultPath() : plugin,
                        loader);
  return agent.run();
}
