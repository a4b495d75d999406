// What the built files show to the dynamic linker. A name too many can take the place of one that
// net-snmp's libraries call among themselves.
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

Names Lines(const std::string &command) {
  Names lines;
  FILE *pipe = popen(command.c_str(), "r");
  char line[1024];
  while (pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr) {
    std::string text = line;
    text.erase(text.find_last_not_of('\n') + 1);
    lines.insert(text);
  }
  EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << command;
  return lines;
}

// Names that a file defines for others, without their versions.
Names Exports(const std::string &file) {
  const Names names =
      Lines("nm -D --defined-only '" + file + "' | awk '{print $NF}' | sed 's/@.*//'");
  EXPECT_FALSE(names.empty()) << file;
  return names;
}

// The shared libraries that the loader gives an executable, except those of the build itself.
Names ForeignLibraries(const std::string &file) {
  Names libraries = Lines("ldd '" + file + "' | awk '$2 == \"=>\" && $3 ~ /^\\// {print $3}'");
  std::erase_if(libraries, [](const std::string &path) {
    for (const char *own : {"libvexcommon", "libtlxci", "libkelmointrfc", "libqvev"}) {
      if (path.find(own) != std::string::npos) {
        return true;
      }
    }
    return false;
  });
  return libraries;
}

// The functions that a platform header declares.
Names Declared(const std::string &header) {
  std::ifstream in(std::string(VEX_SOURCE_DIR) + "/platform/" + header);
  std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_FALSE(text.empty()) << header;
  text = std::regex_replace(text, std::regex(R"(/\*[^*]*\*+([^/*][^*]*\*+)*/|//[^\n]*)"), "");
  Names names;
  // At the beginning of a line a type, then the name and its parameters.
  const std::regex function(R"((?:^|\n)(?!typedef)[a-z][a-z0-9_ ]*[ *]+\**([A-Za-z_]\w*)\s*\()");
  for (std::sregex_iterator at(text.begin(), text.end(), function), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  return names;
}

Names Both(const Names &a, const Names &b) {
  Names both;
  std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::inserter(both, both.end()));
  return both;
}

const Names kHooks = {"init_agent", "get_data", "cleanup_agent"};
const Names kGlobals = {"agent",        "poll_time",       "log_dir", "obj_Q", "ignore_peer_stop",
                        "NicCondition", "PrevNicCondition"};

TEST(Exports, TheFrameworkShowsItsInterfaceAndNothingElse) {
  Names expected = Declared("framework.h");
  for (const std::string &hook : kHooks) {
    EXPECT_EQ(expected.erase(hook), 1u) << hook;
  }
  EXPECT_TRUE(expected.contains("agent_main"));
  EXPECT_TRUE(expected.contains("find_community_string"));
  EXPECT_EQ(Exports(VEX_FRAMEWORK), expected);
}

TEST(Exports, TheExecutableShowsHooksAndGlobals) {
  Names expected = kHooks;
  expected.insert(kGlobals.begin(), kGlobals.end());
  EXPECT_EQ(Exports(VEX_DAEMON), expected);
}

TEST(Exports, OnlyTheStartHookSharesItsNameWithALibrary) {
  const Names libraries = ForeignLibraries(VEX_DAEMON);
  const Names daemon = Exports(VEX_DAEMON);
  const Names framework = Exports(VEX_FRAMEWORK);
  bool agent_library = false;
  for (const std::string &library : libraries) {
    const Names theirs = Exports(library);
    const bool is_agent_library = library.find("libnetsnmpagent") != std::string::npos;
    agent_library = agent_library || is_agent_library;
    EXPECT_EQ(Both(daemon, theirs), is_agent_library ? Names{"init_agent"} : Names{}) << library;
    EXPECT_EQ(Both(framework, theirs), Names{}) << library;
  }
  EXPECT_TRUE(agent_library);
}

}  // namespace
