// vexreg: shows, watches, dumps and writes the objects of the registry, and checks the agent.
#include <locale.h>
#include <signal.h>

#include <CLI/CLI.hpp>

#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/completion.h"
#include "tools/vexreg/usage.h"

namespace {

constexpr char kAbout[] = "Shows and writes the objects that agents publish, and checks the agent.";
constexpr char kNotes[] =
    "An OBJECT is a name (host/cpu.0), a group (cpu), a pattern or a variable.\n"
    "Exit status: 0; 1 when something is missing, differs or fails; 2: wrong usage.";
constexpr char kDumpNotes[] =
    "Integers are numbers, octet strings hexadecimal digits.\n"
    "Example: vexreg dump host/memory | jq .";
constexpr char kShowNotes[] =
    "A LIST names headings (SpaceUsed) or variables, with commas; Object and\n"
    "Published may be named besides.\n"
    "Examples:\n"
    "  vexreg show cpu\n"
    "  vexreg show filesys --sort -PercentSpaceUsed --columns +Published\n"
    "  vexreg show tlxHoMibCondition --json";
constexpr char kWatchNotes[] =
    "On a terminal, a view of the whole screen; ? tells its keys, q or Ctrl-C ends\n"
    "it. In a pipe, a line for each change.\n"
    "Examples:\n"
    "  vexreg watch\n"
    "  vexreg watch memory cpu >changes";
constexpr char kPutNotes[] =
    "VAR is one of\n"
    "  int:N          an integer from -2147483648 to 2147483647\n"
    "  str:SIZE:TEXT  a display string of at most SIZE-1 bytes\n"
    "  hex:HEX        an octet string, two hexadecimal digits an octet\n"
    "The variables are called var0, var1, ... An object of that name is replaced.\n"
    "Example: vexreg put example/one int:5 str:16:text hex:00ff";
constexpr char kRmNotes[] = "Example: vexreg rm example/one";
constexpr char kDoctorNotes[] =
    "One line for each check: ok; note: worth knowing, nothing to do; FAIL: what is\n"
    "wrong and what to do next. Run it as root: others may not see all of it.\n"
    "Example: sudo vexreg doctor";
constexpr char kExportNotes[] =
    "A value that is not known has no sample. FILE is written whole or not at all.\n"
    "Example: vexreg export --output /var/lib/prometheus/node-exporter/vexhost.prom";

constexpr char kCaptureNotes[] =
    "FILE is written whole or not at all, for root alone; - is standard output.\n"
    "Communities, users' keys and comments of snmpd's configuration stay here.\n"
    "Examples:\n"
    "  sudo vexreg capture host.tar.zst\n"
    "  ssh server sudo vexreg capture - >server.tar.zst";
constexpr char kReportNotes[] =
    "One page without scripts that opens from a file and prints: identity, use,\n"
    "software, firmware, siblings, doctor's findings and the log. Only this user may\n"
    "read FILE, which is written whole or not at all.\n"
    "Examples:\n"
    "  sudo vexreg report host.html\n"
    "  vexreg report --capture host.tar.zst >host.html";
constexpr char kReplayNotes[] =
    "In namespaces of its own, with nothing of this host but its programs. What\n"
    "moves by nature (averages, times, counts) is not compared.\n"
    "Exit status: 0 when the same is served; 1 when something differs or it could not\n"
    "be tried; 2 for wrong usage.\n"
    "Example: sudo vexreg replay host.tar.zst";

constexpr int kNameColumns = 26;  // of the names in the lists of --help

// What the command line says.
struct Arguments {
  vex::Selection selection{vex::kRegistryRoot, {}};
  vex::View view;
  vex::Arrangement arrangement;
  std::string object;
  std::vector<std::string> variables;
  std::optional<std::string> data_file;
  std::optional<std::string> output_file;
  std::optional<std::string> page_file;  // the same of a report, without the option
  int most_seconds = 30;
  std::string completion;
  std::string capture_file;  // what capture writes or replay reads
  std::string capture;       // what is shown instead of this host
  vex::ReplayOptions replay;
};

void AddCapture(CLI::App *to, Arguments *arguments) {
  to->add_option("--capture", arguments->capture, "Of a captured host instead of this one")
      ->type_name("FILE");
}

void AddWidth(CLI::App *to, Arguments *arguments) {
  to->add_option("--width", arguments->view.width,
                 "Columns of a line, 0: no limit; else the terminal's")
      ->type_name("N")
      ->check(CLI::Range(0, 10000).description(""));
}

// An option that others have and this command has not: why is better than "no such option".
void Refuse(CLI::App *to, const char *option, const char *why) {
  to->add_flag_callback(option, [option, why] {
      throw CLI::ValidationError(option, why);
    })->group("");
}

void AddJson(CLI::App *to, Arguments *arguments, const char *about) {
  to->add_flag("--json", arguments->view.json, about);
}

CLI::App *AddCommand(CLI::App *app, const char *name, const char *about, const char *notes) {
  CLI::App *command = app->add_subcommand(name, about)->fallthrough();
  command->footer(notes);
  return command;
}

// Objects, and how their values are printed.
void AddObjects(CLI::App *to, Arguments *arguments) {
  to->add_option("OBJECT", arguments->selection.names, "Objects; all when none is named")
      ->type_name("");
}

void AddColour(CLI::App *to, Arguments *arguments) {
  to->add_option_function<std::string>(
        "--color",
        [arguments](const std::string &word) {
          if (!vex::ParseColour(word, &arguments->view.colour)) {
            throw CLI::ValidationError("--color", word + ": not one of auto, always, never");
          }
        },
        "Colours; auto: on a terminal")
      ->type_name("auto|always|never");
}

void AddView(CLI::App *to, Arguments *arguments, const char *json) {
  AddObjects(to, arguments);
  AddWidth(to, arguments);
  AddJson(to, arguments, json);
  to->add_flag("--raw", arguments->view.raw, "Numbers as they are, without words and units");
  AddColour(to, arguments);
}

int Run(int argc, char **argv) {
  // Character widths; what is printed is UTF-8 whatever the user's locale.
  setlocale(LC_CTYPE, "C.UTF-8");

  // Whoever started this may not want to know of its own children's ends.
  signal(SIGCHLD, SIG_DFL);

  CLI::App app{kAbout, "vexreg"};
  app.footer(kNotes);
  app.require_subcommand(1);
  app.get_formatter()->column_width(kNameColumns);
  Arguments arguments;
  app.add_option_function<std::string>(
         "--root",
         [&arguments](const std::string &root) {
           if (root.empty()) {
             throw CLI::ValidationError("--root", "an empty name is no directory's");
           }
           arguments.selection.root = root;
         },
         "Another root directory of the registry")
      ->type_name("DIR");
  app.set_version_flag("-V,--version", "vexreg " VEXREG_VERSION);

  CLI::App *dump = AddCommand(&app, "dump", "Prints objects as JSON", kDumpNotes);
  AddObjects(dump, &arguments);
  // Taken as by the others, though dump knows no other way.
  dump->add_flag("--json", arguments.view.json)->group("");
  dump->add_flag("--raw", arguments.view.raw)->group("");
  CLI::App *show = AddCommand(&app, "show", "Prints objects as tables for people", kShowNotes);
  AddView(show, &arguments, "Values as JSON, in words without --raw");
  // Of a list that names nothing.
  const CLI::Validator named(
      [](const std::string &list) {
        return list.find_first_not_of(",+-") == std::string::npos ? "no column is named" : "";
      },
      "");
  show->add_option("--sort", arguments.arrangement.sort,
                   "Sorts rows by these; -COLUMN: largest first")
      ->type_name("LIST")
      ->check(named)
      ->allow_extra_args(false);
  show->add_option("--columns", arguments.arrangement.columns,
                   "These alone, in this order; +LIST: these as well")
      ->type_name("LIST")
      ->check(named)
      ->allow_extra_args(false);
  CLI::App *watch = AddCommand(&app, "watch",
                               "Keeps a live view; prints changes without a terminal", kWatchNotes);
  AddView(watch, &arguments, "Each change as a line of JSON, also on a terminal");
  watch
      ->add_option("--interval", arguments.view.interval, "Seconds between looks on a terminal (2)")
      ->type_name("N")
      ->check(CLI::Range(0.1, 3600.0).description(""));

  CLI::App *put = AddCommand(&app, "put", "Publishes an object as an agent would", kPutNotes);
  put->add_option("OBJECT", arguments.object, "The object's name")->required()->type_name("");
  put->add_option("VAR", arguments.variables, "Its variables in slot order")->type_name("");
  put->add_option("--data", arguments.data_file, "The raw data block instead; - for standard input")
      ->type_name("FILE");
  CLI::App *rm = AddCommand(&app, "rm", "Removes an object", kRmNotes);
  rm->add_option("OBJECT", arguments.object, "The object's name")->required()->type_name("");

  CLI::App *doctor = AddCommand(
      &app, "doctor", "Checks what usually keeps the agent from being seen", kDoctorNotes);
  AddWidth(doctor, &arguments);
  AddColour(doctor, &arguments);
  AddJson(doctor, &arguments, "An array of objects with state, check and message");
  doctor
      ->add_option("--limit", arguments.most_seconds,
                   "Gives up after N seconds without an answer (30)")
      ->type_name("N")
      ->check(CLI::Range(1, 3600).description(""));

  CLI::App *exporter =
      AddCommand(&app, "export", "Prints the host's values as OpenMetrics text", kExportNotes);
  exporter->add_option("--output", arguments.output_file, "Writes this file instead")
      ->type_name("FILE");

  CLI::App *report = AddCommand(&app, "report", "Writes the host as an HTML page", kReportNotes);
  report
      ->add_option("FILE", arguments.page_file,
                   "The file to write; else, and for -, standard output")
      ->type_name("");
  report->add_option("--output", arguments.output_file, "The same")->type_name("FILE");
  for (CLI::App *each : {dump, show, exporter, report}) {
    AddCapture(each, &arguments);
  }
  for (const char *option : {"--json", "--raw"}) {
    Refuse(exporter, option, "metrics are numbers for programs; vexreg dump prints JSON");
    Refuse(report, option, "a page is for people; vexreg dump prints JSON");
    Refuse(put, option, "nothing is printed");
    Refuse(rm, option, "nothing is printed");
  }
  Refuse(doctor, "--raw",
         "findings have no numbers to be left as they are; --json is for programs");

  CLI::App *capture =
      AddCommand(&app, "capture", "Takes what the agent reads into one file", kCaptureNotes);
  capture->add_option("FILE", arguments.capture_file, "The file to write")
      ->required()
      ->type_name("");
  AddJson(capture, &arguments, "What was taken and what was left out, as JSON");
  Refuse(capture, "--raw", "no values are printed");
  CLI::App *replay =
      AddCommand(&app, "replay", "Runs the agent on a captured host, and compares", kReplayNotes);
  replay->add_option("FILE", arguments.capture_file, "A captured host; - for standard input")
      ->required()
      ->type_name("");
  replay->add_option("--agent", arguments.replay.agent, "Another agent than the installed one")
      ->type_name("FILE");
  replay->add_flag("--exact", arguments.replay.exact,
                   "Compares what is in use, and the load, as well");
  replay
      ->add_option("--limit", arguments.replay.seconds,
                   "Seconds until what differs is believed (60)")
      ->type_name("N")
      ->check(CLI::Range(1, 3600).description(""));

  AddJson(replay, &arguments, "Differences and their number, as JSON");
  Refuse(replay, "--raw", "values are compared and printed as they are");

  // For the shells: not listed.
  CLI::App *completion = app.add_subcommand("completion", "")->fallthrough()->group("");
  completion->add_option("WHAT", arguments.completion)->required();

  const std::vector<std::string> words = vex::CommandFirst(app, {argv + 1, argv + argc});
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::Success &asked) {
    app.exit(asked);  // prints it
    return vex::FinishOutput(vex::kDone);
  } catch (const CLI::ParseError &error) {
    vex::Complain(vex::UsageComplaint(app, words, error));
    return vex::kWrongUsage;
  }
  if (arguments.page_file && arguments.output_file) {
    vex::Complain("FILE and --output both name the file to write: give one of them");
    return vex::kWrongUsage;
  }
  if (!arguments.capture.empty() && app.count("--root") > 0) {
    vex::Complain("--root and --capture both say whose objects are meant: give one of them");
    return vex::kWrongUsage;
  }
  vex::CapturedRegistry captured;
  if (!arguments.capture.empty()) {
    if (!captured.Open(arguments.capture)) {
      return vex::kFailed;
    }
    arguments.selection.root = captured.root();
    vex::UseTimeZoneOf(captured.capture());
    if (!*report && vex::ListObjects(captured.root()).empty()) {
      vex::Complain(arguments.capture + ": nothing was published when this was captured");
      return vex::kFailed;
    }
  }
  const std::string &root = arguments.selection.root;
  if (*dump) {
    return vex::Dump(arguments.selection);
  }
  if (*show) {
    arguments.view.captured = !arguments.capture.empty();
    arguments.arrangement.for_programs = arguments.view.json;
    return vex::Show(arguments.selection, arguments.view, arguments.arrangement);
  }
  if (*watch) {
    return vex::Watch(arguments.selection, arguments.view);
  }
  if (*put) {
    return vex::Put(root, arguments.object, arguments.variables, arguments.data_file);
  }
  if (*rm) {
    return vex::Remove(root, arguments.object);
  }
  if (*doctor) {
    return vex::Doctor(root, arguments.view, arguments.most_seconds);
  }
  if (*exporter) {
    return vex::Export(root, arguments.output_file);
  }
  if (*report) {
    return vex::Report(root, VEXREG_VERSION,
                       arguments.capture.empty() ? nullptr : &captured.capture(),
                       arguments.page_file ? arguments.page_file : arguments.output_file);
  }
  if (*capture) {
    return vex::CaptureHost(root, arguments.capture_file, VEXREG_VERSION, arguments.view.json);
  }
  if (*replay) {
    arguments.replay.json = arguments.view.json;
    return vex::Replay(arguments.capture_file, arguments.replay);
  }
  return *completion ? vex::Complete(app, root, arguments.completion) : vex::kWrongUsage;
}

}  // namespace

int main(int argc, char **argv) {
  return vex::Caught([&] { return Run(argc, argv); });
}
