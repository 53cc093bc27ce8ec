#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string_view>

#include "tarnctl/verbs.h"

namespace {

constexpr double kDefaultPatienceSeconds = 120;

struct Arguments {
  bool json = false;
  double patience_seconds = kDefaultPatienceSeconds;
  tarn::MountRequest mount;
  std::string mount_point;
  bool all = false;
  int count = 0;
  std::string level;
  std::uint64_t speed = 0;
};

void AddMount(CLI::App& app, Arguments& arguments) {
  CLI::App* mount = app.add_subcommand("mount", "Mount a remote as a drive");
  mount->add_option("type", arguments.mount.type, "Protocol type, e.g. local or webdav")
      ->required();
  mount->add_option("url", arguments.mount.url, "The remote: a URL, or a folder for local")
      ->required();
  mount->add_option("mountpoint", arguments.mount.mount_point, "Folder at which it appears")
      ->required();
  mount->add_option("--label", arguments.mount.label,
                    "Volume name (default: the mount point's last name)");
  mount
      ->add_option(
          "--data", arguments.mount.data,
          "Setting of the protocol module: KEY=TEXT, KEY:=JSON for other values, KEY:@FILE for a "
          "text that others are not to see")
      ->take_all()
      ->allow_extra_args(false);
}

void AddDriveCommands(CLI::App& app, Arguments& arguments) {
  CLI::App* unmount = app.add_subcommand("unmount", "Take a drive away");
  CLI::Option* drive =
      unmount->add_option("mountpoint", arguments.mount_point, "Where it is mounted");
  CLI::Option* all = unmount->add_flag("--all", arguments.all, "Every drive of the service");
  drive->excludes(all);
  app.add_subcommand("list", "List the mounted drives");
  CLI::App* watch = app.add_subcommand("watch", "Print the events of all drives as they happen");
  watch->add_option("--count", arguments.count, "End after so many events");
  CLI::App* speed = app.add_subcommand("speed-limit", "Limit the speed of transfers");
  speed
      ->add_option("speed", arguments.speed,
                   "Bytes per second, also as 500KB or 2MiB; 0 lifts the limit")
      ->required()
      ->transform(CLI::AsSizeValue(false));
  speed->add_option("mountpoint", arguments.mount_point, "One drive only");
}

void AddServiceCommands(CLI::App& app, Arguments& arguments) {
  app.add_subcommand("up", "Start the service, unless it is running");
  app.add_subcommand("down", "Unmount every drive and end the service");
  app.add_subcommand("status", "Tell whether the service runs, and what is mounted");
  CLI::App* level = app.add_subcommand("log-level", "Say how much the service logs");
  level->add_option("level", arguments.level, "debug or error")
      ->required()
      ->transform(CLI::IsMember({"DEBUG", "ERROR"}, CLI::ignore_case));
}

int RunUnmount(const tarn::Context& context, const Arguments& arguments) {
  if (arguments.all) {
    return tarn::UnmountAll(context);
  }
  if (arguments.mount_point.empty()) {
    return context.output.Fail("say which drive to unmount, or --all", -1, tarn::kExitUsage);
  }
  return tarn::Unmount(context, arguments.mount_point);
}

int RunSpeedLimit(const tarn::Context& context, const Arguments& arguments) {
  std::optional<std::string> drive;
  if (!arguments.mount_point.empty()) {
    drive = arguments.mount_point;
  }
  return tarn::SetSpeedLimit(context, static_cast<long long>(arguments.speed), drive);
}

int RunMount(const tarn::Context& context, const Arguments& arguments) {
  return tarn::Mount(context, arguments.mount);
}

int RunWatch(const tarn::Context& context, const Arguments& arguments) {
  return tarn::Watch(context, arguments.count);
}

int RunLogLevel(const tarn::Context& context, const Arguments& arguments) {
  return tarn::SetLogLevel(context, arguments.level);
}

template <int (*verb)(const tarn::Context&)>
int RunPlain(const tarn::Context& context, const Arguments& /*arguments*/) {
  return verb(context);
}

struct Verb {
  std::string_view name;
  int (*run)(const tarn::Context& context, const Arguments& arguments);
};

constexpr Verb kVerbs[] = {
    {"up", RunPlain<tarn::Up>},
    {"down", RunPlain<tarn::Down>},
    {"status", RunPlain<tarn::Status>},
    {"list", RunPlain<tarn::List>},
    {"mount", RunMount},
    {"unmount", RunUnmount},
    {"watch", RunWatch},
    {"log-level", RunLogLevel},
    {"speed-limit", RunSpeedLimit},
};

int Run(const std::string& name, const Arguments& arguments) {
  const std::chrono::duration<double> patience(arguments.patience_seconds);
  const tarn::Context context{tarn::FindInstallation(), tarn::Output(arguments.json),
                              std::chrono::ceil<std::chrono::milliseconds>(patience)};
  const auto* const verb = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                        [&](const Verb& known) { return known.name == name; });
  return verb->run(context, arguments);  // each subcommand stands in the table
}

int ParseAndRun(int count, char** texts) {
  CLI::App app("Starts, asks and ends the network-drive service.", "tarnctl");
  Arguments arguments;
  app.add_flag("--json", arguments.json, "Print JSON, one object a line");
  app.add_option("--timeout", arguments.patience_seconds, "Longest wait for an answer, in seconds")
      ->check(CLI::Range(0.1, 86400.0));
  app.require_subcommand(1);
  app.fallthrough();
  AddServiceCommands(app, arguments);
  AddMount(app, arguments);
  AddDriveCommands(app, arguments);
  try {
    app.parse(count, texts);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? tarn::kExitOk : tarn::kExitUsage;
  }
  try {
    return Run(app.get_subcommands().front()->get_name(), arguments);
  } catch (AERROR error) {
    return tarn::Output(arguments.json).Fail("an answer of the service makes no sense", error);
  }
}

}  // namespace

int main(int count, char** texts) {
  try {
    return ParseAndRun(count, texts);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "tarnctl: %s\n", error.what());
    return tarn::kExitFailed;
  }
}
