// The software table from the real dpkg, with a database of its own.
#include <fcntl.h>
#include <sys/stat.h>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

using Strings = std::vector<std::string>;

constexpr char kDatabase[] = "/var/lib/dpkg";

class SoftwareDpkg : public testing::Test {
 protected:
  SoftwareDpkg() {
    host_.Remove(kDatabase);
    // Where the package is installed, its hook would tell of each change.
    host_.Remove("/etc/dpkg/dpkg.cfg.d");
    for (const char *directory : {"/info", "/updates", "/triggers", "/parts", "/alternatives"}) {
      host_.Directory(kDatabase + std::string(directory));
    }
    host_.File(kDatabase + std::string("/status"), "");
    host_.File(kDatabase + std::string("/available"), "");
    const Outcome architecture = RunCommand({"dpkg", "--print-architecture"});
    EXPECT_EQ(architecture.status, 0) << architecture.err;
    suffix_ = "_" + Lines(architecture.out).at(0);
  }

  // Builds the package; the path of the .deb.
  std::string Build(const std::string &name, const std::string &version,
                    const std::string &description, const std::string &architecture = "all") {
    const std::string tree = "/run/build/" + name;
    host_.Remove(tree);
    host_.File(tree + "/DEBIAN/control", "Package: " + name + "\nVersion: " + version +
                                             "\nArchitecture: " + architecture +
                                             "\nMaintainer: Nobody <nobody@localhost>\n"
                                             "Description: " +
                                             description + "\n A longer text that is not shown.\n");
    host_.File(tree + "/usr/share/made-up/" + name, version);
    const std::string deb = tree + ".deb";
    const Outcome built = RunCommand({"dpkg-deb", "--root-owner-group", "--build", tree, deb});
    EXPECT_EQ(built.status, 0) << built.err;
    return deb;
  }

  void Dpkg(Strings arguments) {
    arguments.insert(arguments.begin(), {"dpkg", "--force-all"});
    const Outcome outcome = RunCommand(arguments, {}, 60);
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  }

  // The file whose time tells that the packages changed.
  void Touch() {
    static time_t time = 1000000;
    time++;
    const timespec times[2] = {{time, 0}, {time, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, "/var/lib/dpkg/available", times, 0), 0);
  }

  // "name version type" of the rows behind the permanent ones.
  Strings Packages() {
    Strings packages;
    for (int row = 4; host_.Object("host/swver." + std::to_string(row)); row++) {
      const std::string object = "host/swver." + std::to_string(row);
      packages.push_back(host_.Published(object, "tlxHoSwVerName") + " " +
                         host_.Published(object, "tlxHoSwVerVersion") + " " +
                         host_.Published(object, "tlxHoSwVerType"));
    }
    return packages;
  }

  MadeUpHost host_;
  std::string suffix_;
};

}  // namespace

TEST_F(SoftwareDpkg, FollowsInstallationUpgradeAndRemoval) {
  Dpkg({"-i", Build("kelmo", "8.1.0-181", "The agents"), Build("bash-made-up", "1", "A shell"),
        Build("qv-health", "2.6.9-5.linux.el4", "Health driver"),
        Build("bonding", "3:1.0~rc1+b2", "Bonding"), Build("glutton", "1.0", "A toolkit")});
  Touch();
  host_.Start();
  // In the listing's order, which is the names'.
  EXPECT_EQ(Packages(),
            (Strings{"bonding 3:1.0~rc1+b2 2", "glutton" + suffix_ + " 1.0 5",
                     "kelmo" + suffix_ + " 8.1.0-181 3", "qv-health" + suffix_ + " 2.6.9-5 5"}));
  // What dpkg lists behind the version: the architecture comes first.
  EXPECT_EQ(host_.Get("tlxHoSwVerDescription.4"), "STRING: \"all Bonding \"");
  EXPECT_EQ(host_.Get("tlxHoSwVerVersion.6"), "STRING: \"8.1.0-181\"");
  EXPECT_EQ(host_.Get("tlxHoSwVerNextIndex"), "INTEGER: 8");
  EXPECT_EQ(host_.Get("tlxHoSwVerAgentsVer"), "\"\"");

  Dpkg({"-i", Build("kelmo", "8.2.0-1", "The agents")});
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(host_.Get("tlxHoSwVerVersion.6"), "STRING: \"8.1.0-181\"");
  Touch();
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(host_.Get("tlxHoSwVerVersion.6"), "STRING: \"8.2.0-1\"");

  Dpkg({"-r", "glutton"});
  Touch();
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(host_.Get("tlxHoSwVerName.5"), "No Such Instance currently exists at this OID");
  EXPECT_FALSE(host_.Object("host/swver.5"));
  EXPECT_EQ(host_.Get("tlxHoSwVerName.7"), "STRING: \"qv-health" + suffix_ + "\"");

  // The next one takes the freed number, and the next index for its index.
  const std::string next = host_.Get("tlxHoSwVerNextIndex");
  Dpkg({"-i", Build("vlan", "2", "VLANs")});
  Touch();
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(host_.Get("tlxHoSwVerName.5"), "STRING: \"vlan\"");
  EXPECT_EQ(host_.Get("tlxHoSwVerIndex.5"), next);
  EXPECT_EQ(host_.Get("tlxHoSwVerNextIndex"), "INTEGER: 8");
}

TEST_F(SoftwareDpkg, AnEmptyDatabaseIsAskedForAgain) {
  host_.Start();
  EXPECT_EQ(Packages(), Strings{});
  Dpkg({"-i", Build("glut", "1.0", "A toolkit")});
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(Packages(), Strings{"glut" + suffix_ + " 1.0 5"});
}

TEST_F(SoftwareDpkg, ForeignArchitecturesKeepTheMachines) {
  RunCommand({"dpkg", "--add-architecture", "i386"});
  Dpkg({"-i", Build("qvdiags", "4", "Diagnostics", "i386"),
        Build("e1000", "7", "A driver", "i386")});
  Touch();
  host_.Start();
  const Strings packages = Packages();
  ASSERT_EQ(packages.size(), 2U);
  // dpkg names a package of a foreign architecture with it.
  EXPECT_EQ(packages[0], "e1000:i386 7 2");
  EXPECT_EQ(packages[1], "qvdiags:i386" + suffix_ + " 4 3");
}

TEST_F(SoftwareDpkg, ALongDescriptionCostsTheRow) {
  Dpkg({"-i", Build("glut", "1.0", std::string(300, 'd')),
        Build("qvdiags", "1.0", std::string(150, 'd'))});
  Touch();
  host_.Start();
  EXPECT_EQ(Packages(), Strings{"qvdiags" + suffix_ + " 1.0 3"});
}
