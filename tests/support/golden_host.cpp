#include "tests/support/golden_host.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "tests/support/smbios_tables.h"

namespace made_up {

namespace {

using Strings = std::vector<std::string>;

std::string Cpuinfo(unsigned processors) {
  std::string text;
  for (unsigned n = 0; n < processors; n++) {
    text += "processor\t: " + std::to_string(n) +
            "\nvendor_id\t: GenuineIntel\nmodel name\t: Made-up CPU @ 2.00GHz\n\n";
  }
  return text;
}

std::string ScsiDevice(int channel, int id, const std::string &model, const std::string &revision,
                       const std::string &type) {
  char text[256];
  snprintf(text, sizeof(text),
           "Host: scsi0 Channel: %02d Id: %02d Lun: 00\n"
           "  Vendor: MAKER    Model: %-16s Rev: %-4s\n"
           "  Type:   %-17s                ANSI  SCSI revision: 05\n",
           channel, id, model.c_str(), revision.c_str(), type.c_str());
  return text;
}

// /proc/ide/.../identify: 256 words in hexadecimal.
std::string Identify(const std::string &first_word, std::string revision, std::string model) {
  revision.resize(8, ' ');
  model.resize(40, ' ');
  Strings words(256, "0000");
  words[0] = first_word;
  const auto put = [&words](size_t at, const std::string &text) {
    for (size_t i = 0; i < text.size(); i += 2) {
      char word[8];
      snprintf(word, sizeof(word), "%02x%02x", static_cast<unsigned char>(text[i]),
               static_cast<unsigned char>(text[i + 1]));
      words[at + i / 2] = word;
    }
  };
  put(23, revision);
  put(27, model);
  std::string text;
  for (size_t i = 0; i < words.size(); i++) {
    text += words[i] + (i % 8 == 7 ? "\n" : " ");
  }
  return text;
}

// Another user's, with nothing for anybody else.
void GiveAway(const std::string &path, mode_t mode) {
  EXPECT_EQ(chown(path.c_str(), 1000, 1000), 0) << path << ": " << strerror(errno);
  EXPECT_EQ(chmod(path.c_str(), mode), 0) << path << ": " << strerror(errno);
}

std::string Package(const std::string &name, const std::string &version,
                    const std::string &description) {
  return "ii  " + name + "  " + version + "  x86_64  " + description + "\n";
}

vex::ControllerMood Controller() {
  vex::ControllerMood mood;
  mood.major = 3;
  mood.minor = 7;
  mood.generation = 5;
  mood.logic_code = 0xA1;
  mood.logic = std::string(
      "\x01\x12\xAB\x04"
      "\x01\x02\x03\x00"
      "\xF4\xF5\xF6\x00"
      "\x07\x00\x00\x01"
      "\x0F\x0E\x0D\xFF"
      "\x05\x06\x07",
      23);
  return mood;
}

// 5 March 2024, 14:07:09 in the daemon's zone.
constexpr int64_t kStart = 1'709'640'429;
constexpr char kZone[] = "ZONE-2";

}  // namespace

std::string GoldenStat(const std::vector<Ticks> &processors) {
  const auto line = [](const std::string &name, const Ticks &t) {
    return name + " " + std::to_string(t.user) + " " + std::to_string(t.nice) + " " +
           std::to_string(t.system) + " " + std::to_string(t.idle) + " 0 0 0 0 0 0\n";
  };
  Ticks sum{};
  std::string lines;
  for (const Ticks &t : processors) {
    lines += line("cpu" + std::to_string(&t - processors.data()), t);
    sum = {sum.user + t.user, sum.nice + t.nice, sum.system + t.system, sum.idle + t.idle};
  }
  return line("cpu ", sum) + lines + "intr 0\nctxt 0\nbtime 1709600000\nprocesses 1\n";
}

std::string GoldenMemory(unsigned total, unsigned free, unsigned swap_total, unsigned swap_free) {
  const auto line = [](const char *name, unsigned megabytes) {
    // Not a whole number of megabytes: they are cut.
    return std::string(name) + ":  " + std::to_string(megabytes * 1024 + 1023) + " kB\n";
  };
  return line("MemTotal", total) + line("MemFree", free) + line("MemAvailable", free + 1500) +
         line("Cached", 1600) + line("SwapTotal", swap_total) + line("SwapFree", swap_free);
}

GoldenHost::GoldenHost(bool own_uuid) : controller_(Controller()) {
  host.ComposeProc();
  host.Hostname("golden.example");
  PutSystem(own_uuid);
  PutMounts();
  PutSoftware();
  PutDevices();
  PutSiblings();
}

GoldenHost::~GoldenHost() {
  if (segment_ >= 0) {
    shmctl(segment_, IPC_RMID, nullptr);
  }
}

void GoldenHost::PutSystem(bool own_uuid) {
  host.File("/etc/quorix/appliance.conf",
            "ProductID=4711\nProductName=Quorix Store 9\nOsName=Quorix OS\nOsVersion=3.1 build 7\n"
            "VcdbName=vcdb\nVcdbVersion=5.2\n");
  host.File("/etc/os-release", "NAME=\"An appliance does not ask\"\nVERSION_ID=0\n");
  host.File("/etc/services", "telnet 23/tcp\nsmtp 25/tcp\n");
  host.File(std::string(MadeUpHost::kRegistry) + "/tlxhosystemrole.dat", "mail relay");
  host.File(std::string(MadeUpHost::kRegistry) + "/tlxhosystemroledetail.dat", "rack 7, slot 3");
  host.Proc(
      "stat",
      GoldenStat(
          {{1000, 50, 500, 8500}, {2000, 0, 1000, 7000}, {0, 0, 0, 10000}, {5000, 4000, 5000, 0}}));
  host.Proc("meminfo", GoldenMemory(7900, 5000, 2047, 2000));
  host.Proc("cpuinfo", Cpuinfo(4));
  // Sixteen octets 00 are no UUID.
  const std::string uuid = own_uuid ? "33221100554477668899aabbccddeeff" : std::string(32, '0');
  vex::SmbiosImage smbios = vex::AssembleSmbios(
      "entry 2.8\n"
      "0: 01 02 w=0 03 to=24 \"Maker\" \"P99\" \"01/15/2010\"\n"
      "1: 01 02 00 00 {" +
      uuid +
      "} to=27 \"Maker\" \"Servala KX330 R5\"\n"
      "193: 01 to=9 01 \"5.6\"\n"
      "216: w=1 01 02 \"Other-Key\" \"9.9\"\n"
      "216: w=4 01 02 \"PowerPIC-Key\" \"3.4\"\n");
  host.Directory("/sys/firmware/dmi/tables");
  vex::WriteSmbios(smbios, "/sys/firmware/dmi/tables");
  host.File("/var/lib/quorix/ev/ZTHRN4", std::string("\0\0\0\0\1", 5));
}

void GoldenHost::PutMounts() {
  const std::string longest = "/srv/" + std::string(105, 'l');
  const auto mounted = [this](const std::string &directory, uint64_t blocks, uint64_t free_blocks,
                              uint64_t files, uint64_t free_files) {
    mounts_.push_back(
        std::make_unique<FuseMount>(directory, blocks, free_blocks, files, free_files));
  };
  mounted("/srv/root", 2'560'000, 1'000'001, 655'360, 600'000);
  mounted("/srv/large", 805'306'368, 805'306'112, 4'000'000'000, 1'000'000'000);
  mounted("/srv/with blank", 256'000, 0, 0, 0);
  mounted(longest, 1'000'000, 989'999, 500, 123);
  mounted("/srv/user/small", 1280, 718, 1000, 998);
  GiveAway("/srv/user", 0700);
  host.File("/etc/mtab",
            "sysfs /sys sysfs rw 0 0\n"
            "/dev/sda1 /srv/root ext4 rw,relatime 0 0\n"
            "/dev/mapper/data-large /srv/large xfs rw 0 0\n"
            "filer:/export /mnt/filer nfs rw 0 0\n"
            "/dev/sdb1 /srv/with\\040blank ext4 rw 0 0\n"
            "small /srv/user/small tmpfs rw 0 0\n"
            "/dev/sdc1 " +
                longest +
                " ext4 rw 0 0\n"
                "/dev/sdd1 /mnt/unplugged ext4 rw 0 0\n");
  host.Directory("/vmfs/volumes");
  host.File("/vmfs/vmhba0:0:0:5", "");
  host.Script("/usr/sbin/vmkfstools", "echo 'Capacity 107374182400 (100.0 GB), 53687091200 avail'");
  host.Command("vdf",
               "echo 'Filesystem 1K-blocks Used Available Use% Mounted on'\n"
               "echo 'sda 1048576 524288 524288  50% /vmfs/volumes/one'");
}

void GoldenHost::PutSoftware() {
  host.Command("dpkg",
               "case $1 in\n"
               "-la) cat /run/packages/list ;;\n"
               "-l) cat /run/packages/list ;;\n"
               "--print-architecture) echo x86_64 ;;\n"
               "esac");
  host.Command("rpm", "echo bash-5.1-1; echo qv-snmp-agents-8.1.0-181");
  PutPackages("1:1.0", 1'000'000);
  host.File("/boot/config-6.1.0-golden", "CONFIG_GENERIC_CPU=y\n");
  std::string versions(136, '\0');
  versions.replace(3, 3,
                   "\x02\x32"
                   "a");               // CONFIG
  versions.replace(9, 2, "\x01\x05");  // DIAGS
  versions.replace(21, 3,
                   "\xFF\xFF"
                   "z");  // DISKDR; SYSTEMROMKIT has none
  host.File("/var/lib/quorix/ev/ZTHUV", versions);
}

void GoldenHost::PutPackages(const std::string &vexfoo_version, time_t changed) {
  host.File("/run/packages/list",
            "Desired=Unknown/Install/Remove/Purge/Hold\n" + Package("bash", "5.2", "A shell") +
                Package("qv-rmc", "2.6.9-5.linux.el4", "A driver") +
                Package("kelmo", "9.2.1-4", "The agents") +
                Package("tlx_tlxarray", "2.0", "Arrays with a processor's suffix") +
                Package("vexfoo", vexfoo_version, "A management agent") +
                Package("glutton", "3", "What only begins like it"));
  host.File("/var/lib/dpkg/available", "");
  const timespec times[2] = {{changed, 0}, {changed, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, "/var/lib/dpkg/available", times, 0), 0);
}

void GoldenHost::PutDevices() {
  host.File("/proc/driver/tlxarray/ida0",
            "ida0: QV Array one\nBoard ID: 0x99301A2B\nFirmware Revision: 4.50\nmore\n");
  host.File("/proc/driver/cciss/cciss0",
            "cciss0: QV Array two\nBoard ID: 0x99111a2b\nFirmware Version: 2.84\nIRQ: 51\n");
  host.File("/proc/driver/cciss/cciss1",
            "cciss1: QV Array three\nBoard ID: 0x99801a2b\nFirmware Version: 2.62\nIRQ: 52\n");
  host.File("/proc/scsi/qla2300/10",
            "QLogic Adapter for TCARD14:\n        Firmware version: 3.03.01, Driver version 7\n"
            "Entry address = e0834060\nHBA: QLA2312\n");
  host.File("/proc/scsi/scsi", "Attached devices:\n" +
                                   ScsiDevice(0, 0, "DISK", "1.05", "Direct-Access") +
                                   ScsiDevice(0, 1, "TAPE", "T3", "Sequential-Access") +
                                   ScsiDevice(0, 2, "CD", "0.9", "CD-ROM") +
                                   ScsiDevice(0, 3, "LIBRARY", "L1", "Medium Changer") +
                                   ScsiDevice(0, 4, "LINE", "C7", "Communications") +
                                   ScsiDevice(1, 0, "ARRAY", "2.84", "RAID") +
                                   ScsiDevice(1, 1, "MYSTERY", "9", "Processor"));
  host.File("/proc/ide/ide0/hda/identify", Identify("0040", "3.01", "QV FIXED DISK 40G"));
  host.File("/proc/ide/ide1/hdc/identify", Identify("8580", "1.0", "QV CD DRIVE"));
  for (const char *number : {"0", "1"}) {
    host.File(std::string("/proc/net/nicinfo/eth") + number + ".info",
              "Description\tQV NX000" + std::string(number) +
                  "\nDriver_Name\tbcm5700\nDriver_Version\t7\nBootcode_Version\t2.2" + number +
                  "\n");
  }
  // The key of the RAID device.
  host.Directory("/opt/qv");
  segment_ = shmget(ftok("/opt/qv", 10745), 222, IPC_CREAT | IPC_EXCL | 0600);
  auto *bytes = static_cast<char *>(shmat(segment_, nullptr, 0));
  ASSERT_NE(bytes, reinterpret_cast<char *>(-1)) << strerror(errno);
  bytes[189] = 1;
  strcpy(bytes + 190, "99111a2b");
  shmdt(bytes);
}

void GoldenHost::Put(const std::string &object, const std::vector<int> &values) {
  Strings command = {"put", object};
  for (const int value : values) {
    command.push_back("int:" + std::to_string(value));
  }
  const Outcome outcome = host.Vexreg(command);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

void GoldenHost::PutThreshold(int number, const std::string &oid, int severity) {
  std::string data(600, '\0');
  data.replace(8, oid.size(), oid);
  data[292] = static_cast<char>(severity);
  data[552] = 1;
  host.File("/run/threshold.data", data);
  const Outcome outcome = host.Vexreg(
      {"put", "threshold/entry." + std::to_string(number), "--data", "/run/threshold.data"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

void GoldenHost::PutSiblings() {
  // Revision, condition: each sibling has its own.
  Put("stdeq/misc", {1, 2, 2});
  std::vector<int> sinfo(24);
  sinfo[21] = 2;
  sinfo[22] = 3;
  sinfo[23] = 2;
  Put("stdeq/sinfo", sinfo);
  Put("stdeq/cpucondition", {2, 0});
  Put("ida/misc", {3, 4, 2});
  Put("stsys/mib", {4, 5, 2});
  Put("scsi/mib", {5, 6, 3});
  Put("health/health_rev", {6, 7});
  Put("health/health", {2});
  Put("health/res_mem", {0, 0, 0, 2});
  Put("health/thermal", {0, 0, 2, 2});
  Put("health/ftps", {2, 0});
  Put("health/event_log_status", {0, 2});
  Put("crib/misc", {7, 8, 2});
  Put("threshold/misc", {8, 9, 2});
  Put("ide/mib", {9, 10, 2});
  Put("fca/misc", {10, 11, 3});
  Put("rack/rev", {11, 12});
  Put("rack/stat", {2});
  Put("perf/misc", {12, 13, 2});
  GiveAway(std::string(MadeUpHost::kRegistry) + "/scsi/mib", 0600);
  GiveAway(vex::kControllerSocket, 0700);
  PutThreshold(1, ".1.3.6.1.4.1.4891.11.2.4.1.1.1.2.0", 4);
  PutThreshold(2, ".1.3.6.1.4.1.4891.6.2.4.1.0", 6);  // another group's
  for (const char *process :
       {"/opt/q/vexstdeqd", "vexida", "vexscsi", "/usr/sbin/vexhealthd", "vexsm2", "vexthresh",
        "vexide", "vexfc", "vexnic", "vexrack", "fio-snmp-agentx"}) {
    host.Peer({process, "-p", "15"});  // and no vexperf
  }
}

void GoldenHost::StartMaster() {
  SnmpdOptions master;
  master.all_modules = true;
  for (const auto &[oid, value] : std::map<std::string, int>{{"18.1.1.0", 13},
                                                             {"18.1.2.0", 14},
                                                             {"18.1.3.0", 2},
                                                             {"172.1.1.0", 14},
                                                             {"172.1.2.0", 15},
                                                             {"172.1.3.0", 2},
                                                             {"6.2.5.17.0", 2}}) {
    master.extra +=
        "override .1.3.6.1.4.1.4891." + oid + " integer " + std::to_string(value) + "\n";
  }
  host.snmpd.Start(master);
}

DaemonOptions GoldenHost::Options() const {
  DaemonOptions options;
  options.arguments = {"-p", "30"};  // two polls a minute
  options.clock_stands = kStart;
  options.environment = {{"TZ", kZone}};
  options.kernel = {"6.1.0-golden", "#1 SMP Golden 6.1.1-1 (2024-01-01)", "x86_64"};
  return options;
}

}  // namespace made_up
