// A host as one HTML page. Pure; the template is report.html.
#ifndef VEX_TOOLS_VEXREG_PAGE_H
#define VEX_TOOLS_VEXREG_PAGE_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/vexreg/tables.h"

namespace vex {

struct PageFinding {
  std::string state;  // ok, note or fail
  std::string message;
};

struct PageFacts {
  std::string made;     // when, as text
  std::string program;  // the version of vexreg
  std::string source;   // "" for this host, else whence the capture came
  int64_t moment = 0;   // the same as `made`, in seconds since 1970; 0: not known
  std::string agent;    // what is with an agent whose values are old; empty: not known
  std::vector<NamedObject> objects;
  std::vector<PageFinding> findings;
  std::string no_findings;       // why there are none, or not all
  std::vector<std::string> log;  // its last lines
  std::string no_log;            // why there is none
};

// A page that needs nothing beside it: no scripts, no fonts, no images. What the host says is text
// there, whatever it looks like.
std::string ReportPage(const PageFacts &facts);

// As it stands in HTML's text and attributes: safe for a screen, with &, <, >, " and ' as
// references.
std::string HtmlText(std::string_view bytes);

}  // namespace vex

#endif
