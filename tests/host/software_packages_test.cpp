// The software table from made-up dpkg and rpm commands: what the real ones cannot be made to do.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

using Strings = std::vector<std::string>;

constexpr char kState[] = "/run/packages";
constexpr char kDatabase[] = "/var/lib/dpkg/available";

// dpkg and rpm that print what the files below kState have, and note each call.
void MakeUpPackageTools(MadeUpHost &host) {
  host.Command("dpkg", std::string("cd ") + kState +
                           "\n"
                           "echo \"dpkg $*\" >>calls\n"
                           "case $1 in\n"
                           "-la) cat listing ;;\n"
                           "-l) test ! -e dies && cat list ;;\n"
                           "--print-architecture) cat architecture ;;\n"
                           "esac\n"
                           "test -e pause && sleep $(cat pause)\n"
                           "exit 0\n");
  host.Command("rpm", std::string("cat ") + kState + "/rpm");
  host.File(std::string(kState) + "/architecture", "amd64\n");
  host.File(std::string(kState) + "/rpm", "");
}

std::string Line(const std::string &name, const std::string &version = "1.0",
                 const std::string &description = "Some package") {
  return "ii  " + name + "  " + version + "  all  " + description + "\n";
}

void PutLists(MadeUpHost &host, const std::string &listing, const std::string &list) {
  host.File(std::string(kState) + "/listing", listing);
  host.File(std::string(kState) + "/list", list);
}

// The database was changed `time` seconds after the epoch.
void SetDatabaseTime(MadeUpHost &host, time_t time) {
  host.File(kDatabase, "");
  const timespec times[2] = {{time, 0}, {time, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, kDatabase, times, 0), 0);
}

void PutPackages(MadeUpHost &host, const std::string &list) {
  static time_t time = 1000000;
  PutLists(host, list, list);
  SetDatabaseTime(host, ++time);
}

size_t Calls(const std::string &command) {
  const Strings lines = Lines(ReadFile(std::string(kState) + "/calls"));
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), command));
}

}  // namespace

TEST(SoftwarePackages, ListsWhatIsInstalled) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  host.File(std::string(kState) + "/rpm", "bash-5.1-1\nqv-snmp-agents-8.1.0-181\n");
  host.File(std::string(kState) + "/architecture", "i386\n");
  std::string ev(136, '\0');
  ev.replace(3, 3,
             "\x02\x32"
             "a");
  host.File("/var/lib/quorix/ev/ZTHUV", ev);
  PutPackages(host, "Desired=Unknown/Install/Remove/Purge/Hold\n" + Line("bash", "5.1") +
                        Line("qv-rmc", "2.6.9-5.linux.el4", "A driver") +
                        Line("kelmo", "9.2.1-4", "The agents") + Line("glutton", "3") +
                        "rc  qvdiags  1.0  all  Removed\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoSwVerName"),
            (Strings{"0: STRING: \"CONFIG\"", "1: STRING: \"SYSTEMROMKIT\"", "2: STRING: \"DIAGS\"",
                     "3: STRING: \"DISKDR\"", "4: STRING: \"qv-rmc\"", "5: STRING: \"kelmo\"",
                     "6: STRING: \"glutton\""}));
  EXPECT_EQ(host.Column("tlxHoSwVerVersion"),
            (Strings{"0: STRING: \"2.50a\"", "1: STRING: \"0.0\"", "2: STRING: \"0.0\"",
                     "3: STRING: \"0.0\"", "4: STRING: \"2.6.9-5\"", "5: STRING: \"9.2.1-4\"",
                     "6: STRING: \"3\""}));
  EXPECT_EQ(host.Column("tlxHoSwVerVersionBinary"),
            (Strings{"0: STRING: \"2.50a\"", "1: STRING: \"0.0\"", "2: STRING: \"0.0\"",
                     "3: STRING: \"0.0\"", "4: STRING: \"2.6.9-5\"", "5: STRING: \"9.2.1-4\"",
                     "6: STRING: \"3\""}));
  EXPECT_EQ(host.Column("tlxHoSwVerStatus"),
            (Strings{"0: INTEGER: 2", "1: INTEGER: 1", "2: INTEGER: 1", "3: INTEGER: 1",
                     "4: INTEGER: 2", "5: INTEGER: 2", "6: INTEGER: 2"}));
  EXPECT_EQ(host.Column("tlxHoSwVerType"),
            (Strings{"0: INTEGER: 4", "1: INTEGER: 4", "2: INTEGER: 4", "3: INTEGER: 4",
                     "4: INTEGER: 2", "5: INTEGER: 3", "6: INTEGER: 5"}));
  EXPECT_EQ(host.Column("tlxHoSwVerIndex"),
            (Strings{"0: INTEGER: 0", "1: INTEGER: 1", "2: INTEGER: 2", "3: INTEGER: 3",
                     "4: INTEGER: 4", "5: INTEGER: 5", "6: INTEGER: 6"}));
  EXPECT_EQ(host.Get("tlxHoSwVerDescription.4"), "STRING: \"all A driver \"");
  EXPECT_EQ(host.Get("tlxHoSwVerDescription.1"), "STRING: \"QV System ROMKIT Utility\"");
  EXPECT_EQ(host.Get("tlxHoSwVerLocation.4"), "\"\"");
  EXPECT_EQ(host.Published("host/swver.4", "tlxHoSwVerDate"), std::string(7, '\0'));
  EXPECT_EQ(host.Get("tlxHoSwVerAgentsVer"), "STRING: \"9.2.1\"");
  EXPECT_EQ(host.Published("host/misc", "tlxHoSwVerNextIndex"),
            host.Get("tlxHoSwVerNextIndex").substr(9));
}

TEST(SoftwarePackages, TakesTheAgentVersionFromRpmAndCutsIt) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("bash"));
  host.File(std::string(kState) + "/rpm",
            "qv-snmp-agents-" + std::string(5000, '7') + "-1\nqv-snmp-agents-2-1\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSwVerAgentsVer"), "STRING: \"" + std::string(19, '7') + "\"");
}

TEST(SoftwarePackages, ScansWhenTheDatabaseChanges) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutLists(host, Line("glut"), Line("glut"));
  SetDatabaseTime(host, 5000);
  host.Start();
  EXPECT_EQ(Calls("dpkg -la"), 1U);
  EXPECT_EQ(Calls("dpkg -l"), 1U);
  PutLists(host, Line("glut", "2.0"), Line("glut", "2.0"));
  ASSERT_TRUE(host.daemon.Poll());
  SetDatabaseTime(host, 4999);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls("dpkg -la"), 1U);
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"1.0\"");
  SetDatabaseTime(host, 5001);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls("dpkg -la"), 2U);
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"2.0\"");
  // A listing without a name is asked for again on the next pass.
  PutLists(host, "", "");
  SetDatabaseTime(host, 5002);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "No Such Instance currently exists at this OID");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls("dpkg -la"), 4U);
  PutLists(host, Line("glut", "3.0"), Line("glut", "3.0"));
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls("dpkg -la"), 5U);
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"3.0\"");
}

TEST(SoftwarePackages, GoesOnWithoutDpkg) {
  MadeUpHost host;
  for (const char *path : {"/usr/bin/dpkg", "/bin/dpkg", "/usr/local/bin/dpkg"}) {
    host.Remove(path);
  }
  host.Start();
  EXPECT_EQ(host.Column("tlxHoSwVerIndex").size(), 4U);
  EXPECT_EQ(host.daemon.Count("dpkg: not found (dpkg -la | grep ii | cut -d ' ' -f3)"), 1U);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("dpkg: not found"), 1U);
  EXPECT_EQ(host.Column("tlxHoSwVerIndex").size(), 4U);
  EXPECT_EQ(host.Get("tlxHoSwVerAgentsVer"), "\"\"");
}

TEST(SoftwarePackages, BoundsTheListing) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  std::string listing;
  for (int i = 0; i < 4095; i++) {
    listing += Line("other" + std::to_string(i));
  }
  PutLists(host, listing + Line("glut") + Line("qvdiags"), Line("glut") + Line("qvdiags"));
  SetDatabaseTime(host, 5000);
  host.Start();
  EXPECT_EQ(host.Column("tlxHoSwVerName").back(), "4: STRING: \"glut_amd64\"");

  // Names of 4 + 1 and 98,298 bytes end at the 98,303rd.
  PutLists(host, Line(std::string(98297, 'x')) + Line("glut") + Line("qvdiags"),
           Line("glut") + Line("qvdiags"));
  SetDatabaseTime(host, 5001);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoSwVerName").back(), "4: STRING: \"glut_amd64\"");
  PutLists(host, Line(std::string(98298, 'x')) + Line("glut") + Line("qvdiags"),
           Line("glut") + Line("qvdiags"));
  SetDatabaseTime(host, 5002);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoSwVerName").size(), 4U);
}

TEST(SoftwarePackages, GivesNoImplausibleNameToAShell) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  const std::string longest = "glut" + std::string(85, 'x');
  PutPackages(host, Line("glut;touch${IFS}/run/owned") + Line("glut`touch${IFS}/run/owned`") +
                        Line("glut$(touch${IFS}/run/owned)") + Line("glut`touch${IFS}/run/owned`") +
                        Line(longest) + Line(longest + "y") + Line("glut'|sh"));
  host.Start();
  EXPECT_FALSE(Exists("/run/owned"));
  EXPECT_EQ(host.Column("tlxHoSwVerName").size(), 5U);
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"" + longest.substr(0, 63) + "\"");
  EXPECT_EQ(host.daemon.Count("do_swver: not a package name, skipped: "), 4U);
  EXPECT_EQ(host.daemon.Count("skipped: glut`touch${IFS}/run/owned` (character 0x60)"), 1U);
  EXPECT_EQ(host.daemon.Count("do_swver: package name too long, skipped: " + longest + "y"), 1U);
  EXPECT_EQ(host.daemon.Count("do_swver: packages that could not be reported: 6"), 1U);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("do_swver: not a package name, skipped: "), 4U);
}

TEST(SoftwarePackages, RemovesAPackageWhoseQueryFails) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("glut") + Line("qvdiags"));
  host.Start();
  EXPECT_EQ(host.Column("tlxHoSwVerName").size(), 6U);
  // Not in the list that the query reads.
  PutLists(host, Line("glut") + Line("qvdiags"), Line("qvdiags", "2.0"));
  SetDatabaseTime(host, 2000000);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoSwVerName").back(), "5: STRING: \"qvdiags_amd64\"");
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.5"), "STRING: \"2.0\"");
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "No Such Instance currently exists at this OID");
  // All of them die.
  host.File(std::string(kState) + "/dies", "");
  SetDatabaseTime(host, 2000001);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoSwVerName").size(), 4U);
  EXPECT_FALSE(host.Object("host/swver.5"));
}

TEST(SoftwarePackages, SkipsAPackageWhoseAnswerIsTooLong) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("glut", "1", std::string(300, 'd')) +
                        Line("qvdiags", "1", std::string(200, 'd')) +
                        Line("qvrelm", std::string(60, '1'), "Long version"));
  host.Start();
  EXPECT_EQ(host.Column("tlxHoSwVerName"),
            (Strings{"0: STRING: \"CONFIG\"", "1: STRING: \"SYSTEMROMKIT\"", "2: STRING: \"DIAGS\"",
                     "3: STRING: \"DISKDR\"", "4: STRING: \"qvdiags_amd64\"",
                     "5: STRING: \"qvrelm_amd64\""}));
  EXPECT_EQ(
      host.daemon.Count("do_swver: packages that could not be reported: 1 (1 without a usable"),
      1U);
  EXPECT_EQ(host.Get("tlxHoSwVerDescription.4"), "STRING: \"all " + std::string(200, 'd') + " \"");
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.5"), "STRING: \"" + std::string(50, '1') + "\"");
}

TEST(SoftwarePackages, ListsTheAppliancesSoftware) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("bash"));
  host.File("/etc/quorix/appliance.conf",
            "ProductID=7\nProductName=Box\nOsName=Box OS\nOsVersion=1\nVcdbName=Vcdb\n"
            "VcdbVersion=3.1\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"Vcdb\"");
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"3.1\"");
  EXPECT_EQ(host.Get("tlxHoSwVerDescription.4"), "STRING: \"Box\"");
  EXPECT_EQ(host.Get("tlxHoSwVerType.4"), "INTEGER: 5");
}

TEST(SoftwarePackages, ReportsAMissingApplianceDatum) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("bash"));
  host.File("/etc/quorix/appliance.conf", "ProductID=7\nVcdbName=Vcdb\nVcdbVersion=3.1\n");
  host.Start();
  EXPECT_EQ(host.daemon.Count("do_swver_appliance: ProductName not found"), 1U);
  EXPECT_EQ(host.Column("tlxHoSwVerName").size(), 4U);
}

TEST(SoftwarePackages, ReadsComponentVersionsOnceInItsLife) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("bash"));
  host.Start();
  host.File("/var/lib/quorix/ev/ZTHUV", std::string(136, '\x01'));
  ASSERT_TRUE(host.daemon.Poll());
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(host.Get("tlxHoSwVerVersion." + std::to_string(i)), "STRING: \"0.0\"");
    EXPECT_EQ(host.Get("tlxHoSwVerStatus." + std::to_string(i)), "INTEGER: 1");
  }
}

TEST(SoftwarePackages, AManagerSetsAndAPassTakesBack) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("glut"));
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 'i', "5"), "wrongValue");
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 'i', "0"), "wrongValue");
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 'i', "4"), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerType.4"), "INTEGER: 4");
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 's', "4"), "wrongType");
  for (const char *column : {"tlxHoSwVerIndex", "tlxHoSwVerStatus"}) {
    EXPECT_EQ(host.Set(std::string(column) + ".4", 'i', "2"), "notWritable") << column;
  }
  for (const char *column : {"tlxHoSwVerDescription", "tlxHoSwVerDate", "tlxHoSwVerVersion",
                             "tlxHoSwVerVersionBinary"}) {
    EXPECT_EQ(host.Set(std::string(column) + ".4", 's', "1234567"), "notWritable") << column;
  }
  EXPECT_EQ(host.Set("tlxHoSwVerLocation.4", 's', "rack 7"), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerLocation.4"), "STRING: \"rack 7\"");

  // The longest texts; what a manager then reads is what it set.
  const std::string name(128, 'n');
  EXPECT_EQ(host.Set("tlxHoSwVerName.4", 's', std::string(129, 'n')), "wrongLength");
  EXPECT_EQ(host.Set("tlxHoSwVerName.4", 's', name), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"" + name + "\"");
  // A pass without a rescan leaves all of it.
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSwVerType.4"), "INTEGER: 4");
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"" + name + "\"");

  PutPackages(host, Line("glut"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"glut_amd64\"");
  EXPECT_EQ(host.Get("tlxHoSwVerType.4"), "INTEGER: 5");
  EXPECT_EQ(host.Get("tlxHoSwVerDescription.4"), "STRING: \"all Some package \"");
  EXPECT_EQ(host.Get("tlxHoSwVerLocation.4"), "STRING: \"rack 7\"");
  EXPECT_EQ(host.Published("host/swver.4", "tlxHoSwVerLocation"), "rack 7");

  const std::string location(256, 'l');
  EXPECT_EQ(host.Set("tlxHoSwVerLocation.4", 's', std::string(257, 'l')), "wrongLength");
  EXPECT_EQ(host.Set("tlxHoSwVerLocation.4", 's', location), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerLocation.4"), "STRING: \"" + location + "\"");
  PutPackages(host, Line("glut"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"1.0\"");
  EXPECT_EQ(host.Published("host/swver.4", "tlxHoSwVerVersion"), "1.0");
}

TEST(SoftwarePackages, TheNextIndexIsSharedWithTheFirmwareTable) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  host.ComposeProc();
  PutPackages(host, Line("glut") + Line("qvdiags"));
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSwVerNextIndex"), "INTEGER: 6");
  // The firmware pass, later in the poll, makes its first row (the power microcontroller's).
  PutPackages(host, Line("qvdiags"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoFwVerCategory.0"), "INTEGER: 1");
  EXPECT_EQ(host.Get("tlxHoSwVerNextIndex"), "INTEGER: 1");
  PutPackages(host, Line("qvdiags") + Line("qvrelm"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"qvrelm_amd64\"");
  EXPECT_EQ(host.Get("tlxHoSwVerIndex.4"), "INTEGER: 1");
  EXPECT_EQ(host.Get("tlxHoSwVerNextIndex"), "INTEGER: 6");
}

TEST(SoftwarePackages, ReadsAreAnsweredDuringASlowScan) {
  MadeUpHost host;
  MakeUpPackageTools(host);
  PutPackages(host, Line("glut") + Line("qvdiags"));
  host.Start();
  EXPECT_EQ(host.daemon.Count("Info: scanning"), 0U);
  // Listing and two queries, of two calls each, of 2.5 seconds.
  host.File(std::string(kState) + "/pause", "2.5\n");
  PutPackages(host, Line("glut", "2.0") + Line("qvdiags"));
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([] { return Calls("dpkg -la") == 2U; }));
  for (const double from = Now(); Now() - from < 3;) {
    EXPECT_TRUE(QuickGet(host.Oid("tlxHoSwVerType.4").substr(1), 2));
    Pause(0.05);
  }
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"1.0\"");
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 'i', "1"), "resourceUnavailable");
  // A poll asks for as much as fits into its time; the next one goes on.
  ASSERT_TRUE(Eventually([&] { return host.Get("tlxHoSwVerVersion.4") == "STRING: \"2.0\""; }, 60));
  EXPECT_EQ(host.Get("tlxHoSwVerType.4"), "INTEGER: 5");
  for (int poll = 0; poll < 5 && host.daemon.Count("Info: scanning 2 packages took ") == 0;
       poll++) {
    ASSERT_TRUE(host.daemon.Poll(60));
  }
  EXPECT_EQ(Calls("dpkg -la"), 2U);
  EXPECT_EQ(Calls("dpkg -l"), 4U);
  host.Remove(std::string(kState) + "/pause");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Info: scanning"), 1U);
}
