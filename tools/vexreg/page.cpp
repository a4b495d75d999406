#include "tools/vexreg/page.h"

#include <algorithm>
#include <optional>

#include "tools/vexreg/live_columns.h"
#include "tools/vexreg/live_data.h"
#include "tools/vexreg/values.h"
#include "tools/vexreg/words.h"

namespace vex {
namespace {

constexpr std::string_view kTemplate =
#include "tools/vexreg/report_template.inc"
    ;

constexpr int kHigh = 75;
constexpr int kFull = 90;
// Of a table; the rest is folded away.
constexpr size_t kShownRows = 20;

std::string Replaced(std::string text, std::string_view mark, std::string_view with) {
  for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += with.size()) {
    text.replace(at, mark.size(), with);
  }
  return text;
}

const char *ClassOf(Mood mood) {
  switch (mood) {
    case Mood::kGood:
      return "good";
    case Mood::kWarning:
      return "warning";
    case Mood::kBad:
      return "bad";
    case Mood::kFaint:
      return "faint";
    case Mood::kPlain:
      break;
  }
  return "";
}

std::string Styled(const std::string &text, const char *name) {
  const std::string safe = HtmlText(text);
  return *name == '\0' ? safe : "<span class=\"" + std::string(name) + "\">" + safe + "</span>";
}

// A bar beside its number, which says the same to those who do not see it.
std::string Bar(int percent) {
  percent = std::clamp(percent, 0, 100);
  const char *level = percent >= kFull ? " bad" : percent >= kHigh ? " warning" : "";
  return "<span class=\"meter\"><span class=\"bar" + std::string(level) +
         "\" aria-hidden=\"true\"><span style=\"width:" + std::to_string(percent) +
         "%\"></span></span><span class=\"percent\">" + std::to_string(percent) +
         " %</span></span>";
}

class Page {
 public:
  explicit Page(const PageFacts &facts)
      : facts_(facts), data_(DataOf(facts.objects, false, facts.moment, 0)) {}

  std::string Text() {
    Failures();
    Identity();
    Processors();
    Memory();
    FileSystems();
    Siblings();
    Rows("firmware", "Firmware", "Devices and the versions of their firmware", "host/fwver",
         {{"Device", "tlxHoFwVerDisplayName"},
          {"Version", "tlxHoFwVerVersion"},
          {"Place", "tlxHoFwVerLocation"},
          {"Key", "tlxHoFwVerKeyString"}});
    Rows("software", "Software", "Packages that belong to the suite", "host/swver",
         {{"Name", "tlxHoSwVerName"},
          {"Version", "tlxHoSwVerVersion"},
          {"Kind", "tlxHoSwVerType"},
          {"Description", "tlxHoSwVerDescription"}});
    Findings();
    Log();
    const std::string name = ValueOf(kInfo, "tlxHoSystemName");
    std::string page(kTemplate);
    page = Replaced(page, "@SECTIONS@", sections_);
    page = Replaced(
        page, "@SUBTITLE@",
        HtmlText((facts_.source.empty() ? "" : "Captured: " + facts_.source + ". ") + facts_.made));
    page = Replaced(page, "@AGE@", Age());
    page = Replaced(page, "@FOOTER@",
                    HtmlText("Made by vexreg " + facts_.program + "; agent " +
                             ValueOf(kAgentGroup, "tlxHoAgentVersion") + "."));
    page = Replaced(page, "@TITLE@", HtmlText(name.empty() ? "Host report" : name));
    return Replaced(page, "@BODY@", body_);
  }

 private:
  std::optional<Shown> ShownOf(const FileObject *object, std::string_view name) const {
    const FileVariable *const variable = object != nullptr ? VariableOf(*object, name) : nullptr;
    return variable != nullptr ? std::optional(ShowValue(*object, *variable)) : std::nullopt;
  }

  std::string ValueOf(std::string_view object, std::string_view name) const {
    const auto shown = ShownOf(data_.Object(object), name);
    return shown ? shown->text : "";
  }

  // The last poll and how old it was when the page was made; empty when there was none.
  std::string Age() const {
    const int64_t age = facts_.moment != 0 ? data_.AgeOfValues(facts_.moment, 0) : -1;
    if (age < 0) {
      return "";
    }
    const bool stale = data_.IsStale(facts_.moment, 0);
    const std::string what =
        "Last poll " + ZonedTimeText(facts_.moment - age) + ", " + DurationText(age) + " before";
    const std::string why = stale && !facts_.agent.empty() ? ": " + facts_.agent : "";
    return "<p class=\"" + std::string(stale ? "bad" : "faint") + "\">" + HtmlText(what + why) +
           "</p>\n";
  }

  void Begin(const std::string &id, const std::string &title) {
    sections_ += "<li><a href=\"#" + id + "\">" + title + "</a></li>\n";
    body_ += "<section aria-labelledby=\"" + id + "\">\n<h2 id=\"" + id + "\">" + title + "</h2>\n";
  }
  void End() {
    body_ += "</section>\n";
  }
  void BeginTable(const std::string &kind, const std::string &caption) {
    // Reached by the keyboard, so that what is wider than the screen can be scrolled.
    body_ += "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"" + caption +
             "\">\n<table class=\"" + kind + "\">\n<caption>" + caption + "</caption>\n";
  }
  void EndTable() {
    body_ += "</tbody>\n</table>\n</div>\n";
  }
  // A table of so many rows, of which the first ones are seen at once.
  template <typename Row>
  void LongTable(const std::string &caption, const std::vector<std::string> &titles, size_t count,
                 const Row &row) {
    BeginTable("rows", caption);
    Head(titles);
    for (size_t i = 0; i < std::min(count, kShownRows); i++) {
      row(i);
    }
    EndTable();
    if (count <= kShownRows) {
      return;
    }
    body_ += "<details>\n<summary>" + std::to_string(count - kShownRows) + " more</summary>\n";
    BeginTable("rows", caption + ", the rest");
    Head(titles);
    for (size_t i = kShownRows; i < count; i++) {
      row(i);
    }
    EndTable();
    body_ += "</details>\n";
  }
  void Head(const std::vector<std::string> &titles) {
    body_ += "<thead><tr>";
    for (const std::string &title : titles) {
      body_ += "<th scope=\"col\">" + title + "</th>";
    }
    body_ += "</tr></thead>\n<tbody>\n";
  }
  void Fact(const std::string &title, const std::string &html) {
    if (!html.empty()) {
      body_ += "<tr><th scope=\"row\">" + title + "</th><td>" + html + "</td></tr>\n";
    }
  }
  void Cell(const std::string &title, const std::string &html, const char *kind = "") {
    body_ += "<td" + std::string(*kind != '\0' ? " class=\"" + std::string(kind) + "\"" : "") +
             " data-label=\"" + title + "\">" + html + "</td>";
  }
  std::string Html(const FileObject *object, std::string_view name) const {
    const auto shown = ShownOf(object, name);
    return shown ? Styled(shown->text, ClassOf(shown->mood)) : "";
  }

  void Identity() {
    Begin("identity", "Identity");
    if (facts_.objects.empty()) {
      body_ += "<p class=\"bad\">The agent publishes nothing.</p>\n";
    }
    BeginTable("facts", "What the host is");
    body_ += "<tbody>\n";
    struct {
      const char *title, *object, *variable;
    } constexpr kFacts[] = {
        {"Name", "host/info", "tlxHoSystemName"},
        {"Condition", "host/misc", "tlxHoMibCondition"},
        {"System", "host/info", "tlxHoName"},
        {"Version", "host/info", "tlxHoVersion"},
        {"Description", "host/info", "tlxHoDesc"},
        {"Kernel", "host/info", "tlxHosysDescr"},
        {"Role", "host/info", "tlxHoSystemRole"},
        {"Role in detail", "host/info", "tlxHoSystemRoleDetail"},
        {"Appliance", "host/appliance", "tlxApApplianceDescription"},
        {"Kind of platform", "host/hwinfo", "tlxHoHWInfoPlatform"},
        {"GUID", "host/misc", "tlxHoGUIDCanonical"},
        {"Up for", "host/load", "tlxHoUptime"},
        {"Agent started", "host/agent", "tlxHoAgentStart"},
    };
    for (const auto &fact : kFacts) {
      Fact(fact.title, Html(data_.Object(fact.object), fact.variable));
    }
    EndTable();
    End();
  }

  // The rows of a group in the order of their numbers.
  std::vector<const LiveRow *> RowsOf(std::string_view group) const {
    std::vector<const LiveRow *> rows;
    if (const LiveGroup *const found = data_.Group(group)) {
      for (const auto &[number, row] : found->rows) {
        rows.push_back(&row);
      }
    }
    return rows;
  }

  void Processors() {
    const std::vector<const LiveRow *> rows = RowsOf(kProcessors);
    if (rows.empty()) {
      return;
    }
    Begin("processors", "Processors");
    if (const FileObject *const load = data_.Object(kLoad)) {
      body_ += "<p>Load: " + Html(load, "tlxHoLoadOne") + ", " + Html(load, "tlxHoLoadFive") +
               ", " + Html(load, "tlxHoLoadFifteen") + " (1, 5, 15 minutes)</p>\n";
    }
    constexpr std::pair<const char *, const char *> kAverages[] = {
        {"1 minute", "tlxHoCpuUtilMin"},
        {"5 minutes", "tlxHoCpuUtilFiveMin"},
        {"30 minutes", "tlxHoCpuUtilThirtyMin"},
        {"1 hour", "tlxHoCpuUtilHour"}};
    std::vector<std::string> titles = {"Processor"};
    for (const auto &average : kAverages) {
      titles.emplace_back(average.first);
    }
    LongTable("Use of the processors, as averages", titles, rows.size(), [&](size_t i) {
      const FileObject *const object = rows[i]->object.get();
      body_ += "<tr><th scope=\"row\">" + Html(object, "tlxHoCpuUtilUnitIndex") + "</th>";
      for (const auto &[title, name] : kAverages) {
        const auto percent = KnownNumber(object, name);
        Cell(title, percent ? Bar(*percent) : Html(object, name), "number");
      }
      body_ += "</tr>\n";
    });
    End();
  }

  void MemoryRow(const std::string &title, const char *size, const char *free,
                 std::optional<int> use) {
    const FileObject *const object = data_.Object(kMemory);
    body_ += "<tr><th scope=\"row\">" + title + "</th>";
    Cell("Size", Html(object, size), "number");
    Cell("Free", Html(object, free), "number");
    Cell("In use", use ? Bar(*use) : "", "number");
    body_ += "</tr>\n";
  }

  void Memory() {
    const FileObject *const memory = data_.Object(kMemory);
    if (memory == nullptr) {
      return;
    }
    Begin("memory", "Memory");
    // What the kernel would give back is not in use.
    const FileObject *const detail = data_.Object(kMemoryDetail);
    if (detail != nullptr) {
      body_ += "<p>Available to programs: " + Html(detail, "tlxHoMemoryAvailable") +
               "; cached: " + Html(detail, "tlxHoMemoryCached") + "</p>\n";
    }
    BeginTable("rows", "Memory and swap space");
    Head({"Kind", "Size", "Free", "In use"});
    MemoryRow("Memory", "tlxHoPhysicalMemorySize", "tlxHoPhysicalMemoryFree",
              MemoryUse(memory, detail));
    MemoryRow("Swap", "tlxHoPagingMemorySize", "tlxHoPagingMemoryFree", SwapUse(memory));
    EndTable();
    End();
  }

  void FileSystems() {
    std::vector<const LiveRow *> rows = RowsOf(kFileSystems);
    if (rows.empty()) {
      return;
    }
    const size_t all = rows.size();
    // Those of the kernel have no space, and of one that does not answer nothing is known.
    std::erase_if(rows, [](const LiveRow *row) {
      return KnownNumber(row->object.get(), "tlxHoFileSysSpaceTotal").value_or(-1) == 0;
    });
    std::stable_sort(rows.begin(), rows.end(), [](const LiveRow *a, const LiveRow *b) {
      const char *const use = "tlxHoFileSysPercentSpaceUsed";
      return KnownNumber(a->object.get(), use).value_or(-1) >
             KnownNumber(b->object.get(), use).value_or(-1);
    });
    Begin("filesystems", "File systems");
    LongTable("Fullest first", {"File system", "Type", "Size", "Used", "Use", "Access", "State"},
              rows.size(), [&](size_t i) { FileSystem(*rows[i]); });
    if (rows.size() < all) {
      body_ += "<p class=\"faint\">" + std::to_string(all - rows.size()) +
               " without space are left out.</p>\n";
    }
    End();
  }

  void FileSystem(const LiveRow &row) {
    const FileObject *const object = row.object.get();
    // The mounts' rows have the same numbers.
    const LiveRow *const mount_row = data_.Row(kMounts, row.number);
    const FileObject *const mount = mount_row != nullptr ? mount_row->object.get() : nullptr;
    const auto percent = KnownNumber(object, "tlxHoFileSysPercentSpaceUsed");
    const auto read_only = KnownNumber(mount, "tlxHoMountReadOnly");
    const std::string name = Html(object, "tlxHoFileSysDesc");
    body_ += "<tr><th scope=\"row\" class=\"long\">" +
             (name.empty() ? Styled("not known", "faint") : name) + "</th>";
    Cell("Type", Html(mount, "tlxHoMountType"), "word");
    Cell("Size", Html(object, "tlxHoFileSysSpaceTotal"), "number");
    Cell("Used", Html(object, "tlxHoFileSysSpaceUsed"), "number");
    Cell("Use", percent ? Bar(*percent) : "", "number");
    Cell("Access", !read_only ? "" : *read_only == kTruthTrue ? "read-only" : "read-write", "word");
    Cell("State", Html(mount, "tlxHoMountState"), "word");
    body_ += "</tr>\n";
  }

  void Siblings() {
    std::vector<const LiveRow *> rows = RowsOf(kSiblings);
    if (rows.empty()) {
      return;
    }
    std::string absent;
    std::erase_if(rows, [&](const LiveRow *row) {
      const bool runs = KnownNumber(row->object.get(), "tlxHoSiblingPresent") == kTruthTrue;
      if (!runs) {
        absent += (absent.empty() ? "" : ", ") + TextOf(row->object.get(), "tlxHoSiblingName");
      }
      return !runs;
    });
    Begin("siblings", "Sibling agents");
    if (!rows.empty()) {
      LongTable("Agents of the same suite that run on this host",
                {"Name", "Agent", "Condition", "Health"}, rows.size(), [&](size_t i) {
                  const FileObject *const object = rows[i]->object.get();
                  body_ += "<tr><th scope=\"row\">" + Html(object, "tlxHoSiblingName") + "</th>";
                  Cell("Agent", Styled("runs", "good"));
                  Cell("Condition", Html(object, "tlxHoSiblingCondition"), "word");
                  Cell("Health", Html(object, "tlxHoSiblingHealth"), "word");
                  body_ += "</tr>\n";
                });
    }
    if (!absent.empty()) {
      body_ += "<p class=\"faint\">No agent: " + HtmlText(absent) + "</p>\n";
    }
    End();
  }

  void Rows(const std::string &id, const std::string &title, const std::string &caption,
            const std::string &group,
            const std::vector<std::pair<std::string, std::string>> &columns) {
    const std::vector<const LiveRow *> rows = RowsOf(group);
    if (rows.empty()) {
      return;
    }
    Begin(id, title);
    std::vector<std::string> titles;
    titles.reserve(columns.size());
    for (const auto &column : columns) {
      titles.push_back(column.first);
    }
    LongTable(caption, titles, rows.size(), [&](size_t i) {
      const FileObject *const object = rows[i]->object.get();
      body_ += "<tr><th scope=\"row\">" + Html(object, columns.front().second) + "</th>";
      for (size_t c = 1; c < columns.size(); c++) {
        Cell(columns[c].first, Html(object, columns[c].second));
      }
      body_ += "</tr>\n";
    });
    End();
  }

  void FindingRows(const std::string &state, const char *shown, const char *kind) {
    for (const PageFinding &finding : facts_.findings) {
      if (finding.state == state) {
        body_ += "<tr><th scope=\"row\" class=\"word\">" + Styled(shown, kind) +
                 "</th><td class=\"long\">" + HtmlText(finding.message) + "</td></tr>\n";
      }
    }
  }

  bool Fails() const {
    return std::any_of(facts_.findings.begin(), facts_.findings.end(),
                       [](const PageFinding &finding) { return finding.state == "fail"; });
  }

  // Before anything else, where there is something to be done.
  void Failures() {
    if (!Fails()) {
      return;
    }
    Begin("failures", "To be done");
    BeginTable("rows", "What doctor says has to be done");
    Head({"State", "Finding"});
    FindingRows("fail", "FAIL", "bad");
    EndTable();
    End();
  }

  void Findings() {
    Begin("findings", "Doctor's findings");
    if (!facts_.no_findings.empty()) {
      body_ += "<p class=\"warning\">" + HtmlText(facts_.no_findings) + "</p>\n";
    }
    if (!facts_.findings.empty()) {
      BeginTable("rows", Fails() ? "What else was checked" : "What was checked");
      Head({"State", "Finding"});
      FindingRows("note", "note", "warning");
      FindingRows("ok", "ok", "good");
      EndTable();
    }
    End();
  }

  void Log() {
    Begin("log", "The log's last lines");
    if (facts_.log.empty()) {
      body_ += "<p class=\"faint\">" +
               HtmlText(facts_.no_log.empty() ? "The log is empty." : facts_.no_log) + "</p>\n";
    } else {
      body_ += "<pre tabindex=\"0\" role=\"region\" aria-label=\"Log\">";
      for (const std::string &line : facts_.log) {
        body_ += HtmlText(line) + "\n";
      }
      body_ += "</pre>\n";
    }
    End();
  }

  const PageFacts &facts_;
  const LiveData data_;
  std::string sections_;
  std::string body_;
};

}  // namespace

std::string HtmlText(std::string_view bytes) {
  std::string html;
  for (const char c : SafeText(bytes)) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      case '@':  // also the mark of the template
        html += "&#64;";
        break;
      default:
        html += c;
    }
  }
  return html;
}

std::string ReportPage(const PageFacts &facts) {
  return Page(facts).Text();
}

}  // namespace vex
