// vexreg: shows, watches, dumps and writes the objects of the registry, and checks the agent.
#include <locale.h>

#include <CLI/CLI.hpp>

#include "tools/vexreg/commands.h"

namespace {

constexpr char kAbout[] =
    "Shows, watches, dumps and writes the objects that agents publish, and checks the agent.";
constexpr char kNotes[] =
    "Objects are named from the registry's root, as host/cpu.0; none named means all.\n"
    "\n"
    "Exit status: 0; 1 when a named object does not exist or cannot be read (or written),\n"
    "or when doctor finds something wrong; 2 for wrong usage.";
constexpr char kPutNotes[] =
    "VAR is one of\n"
    "  int:N          an integer from -2147483648 to 2147483647\n"
    "  str:SIZE:TEXT  a display string of at most SIZE-1 bytes in a field of SIZE bytes\n"
    "  hex:HEX        an octet string, two hexadecimal digits an octet\n"
    "\n"
    "The variables get the names var0, var1, ... and follow one another in the data block without\n"
    "gaps. With --data the bytes of FILE are the data block instead of the values; VARs given as\n"
    "well say what lies at its beginning (their values count for nothing). Missing directories "
    "are\n"
    "made; an object of that name is replaced at once.";
constexpr char kDoctorNotes[] =
    "One line for each check: ok; note: worth knowing, nothing to do; FAIL: what is wrong and\n"
    "what to do next. The configuration is the running agent's, or else the one that it would\n"
    "read. Run it as root: other users may not see all of it, and it says so.\n"
    "\n"
    "Exit status: 0 when all is well; 1 when something fails; 2 for wrong usage.";

}  // namespace

int main(int argc, char **argv) {
  // Character widths; what is printed is UTF-8 whatever the user's locale.
  setlocale(LC_CTYPE, "C.UTF-8");

  CLI::App app{kAbout, "vexreg"};
  app.footer(kNotes);
  app.require_subcommand(1);
  vex::Selection selection{vex::kRegistryRoot, {}};
  app.add_option("--root", selection.root, "The registry's root directory")
      ->type_name("DIR")
      ->capture_default_str();
  app.set_version_flag("--version", "vexreg " VEXREG_VERSION);

  std::optional<int> width;
  const auto add_width = [&](CLI::App *to) {
    to->add_option("--width", width,
                   "Columns of a line, 0 for no limit; else the terminal's, and no limit when "
                   "the output is none")
        ->type_name("N")
        ->check(CLI::Range(0, 10000));
  };
  const auto add_view = [&](const char *name, const char *about, bool tables) {
    CLI::App *view = app.add_subcommand(name, about)->fallthrough();
    view->add_option("OBJECT", selection.names, "Objects; all when none is named")->type_name("");
    if (tables) {
      add_width(view);
    }
    return view;
  };
  CLI::App *dump = add_view("dump", "Prints objects as JSON", false);
  CLI::App *show = add_view("show", "Prints objects as tables for people", true);
  CLI::App *watch = add_view("watch",
                             "Keeps a live view of objects; prints each change when the output is "
                             "no terminal",
                             true);

  std::string object;
  std::vector<std::string> variables;
  std::optional<std::string> data_file;
  CLI::App *put = app.add_subcommand("put", "Publishes an object as an agent would")->fallthrough();
  put->add_option("OBJECT", object, "The object's name")->required()->type_name("");
  put->add_option("VAR", variables, "Its variables in slot order")->type_name("");
  put->add_option("--data", data_file, "The raw data block; - for standard input")
      ->type_name("FILE");
  put->footer(kPutNotes);
  CLI::App *rm = app.add_subcommand("rm", "Removes an object")->fallthrough();
  rm->add_option("OBJECT", object, "The object's name")->required()->type_name("");

  CLI::App *doctor =
      app.add_subcommand("doctor", "Checks what usually keeps the agent from being seen")
          ->fallthrough();
  add_width(doctor);
  int most_seconds = 30;
  doctor
      ->add_option("--limit", most_seconds,
                   "Seconds after which it gives up a file or mount that does not answer")
      ->type_name("N")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  doctor->footer(kDoctorNotes);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? vex::kDone : vex::kWrongUsage;
  }
  if (*dump) {
    return vex::Dump(selection);
  }
  if (*show) {
    return vex::Show(selection, width);
  }
  if (*watch) {
    return vex::Watch(selection, width);
  }
  if (*put) {
    return vex::Put(selection.root, object, variables, data_file);
  }
  if (*doctor) {
    return vex::Doctor(selection.root, width, most_seconds);
  }
  return *rm ? vex::Remove(selection.root, object) : vex::kWrongUsage;
}
