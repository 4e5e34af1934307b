#include "core/ai/search_syntax.h"

namespace tarv::SearchSyntax {

// Alignment is with spaces only; every example query here must stay valid
// query syntax, since agents copy them verbatim.
const std::string_view guide =
    "Tarv search syntax (Vantor 1.4 compatible). Matching is on file and folder names, case-insensitive, unless "
    "noted.\n"
    "\n"
    "  report 2026          AND: both words in the name (space)\n"
    "  jpg | png            OR\n"
    "  !tmp                 NOT\n"
    "  <a | b> c            grouping\n"
    "  \"my file\"            exact phrase (quotes keep spaces)\n"
    "  *.log  data?.csv     wildcards (whole name must match)\n"
    "  /Users/me/Projects/  a term with \"/\" matches the full path; path: makes any term match the full path\n"
    "  file:  folder:       only files / only folders\n"
    "  ext:pdf;docx         extensions of files (no dot, ; separated); app bundles are folders: folder: *.app\n"
    "  size:>10mb  size:1mb..50mb  size:<4kb  size:unknown      units: kb mb gb (1024-based)\n"
    "  dm:today  dm:yesterday  dm:2026  dm:2026-10  dm:2026-10-01  dm:>2026-09-01  dm:2026-01..2026-06\n"
    "                       date modified (dc: date created, same forms; local time)\n"
    "  parent:/Users/me/Downloads   direct children of a folder\n"
    "  volume-label:\"Macintosh HD\"  files on a disk with that name\n"
    "  case:  nocase:  wfn: (whole file name)  path:  nopath:     modifiers before a term, e.g. case:README "
    "wfn:Makefile\n"
    "  audio:  video:  pic:  doc:  exe:  zip:                    file type groups (extension lists)\n"
    "\n"
    "Not supported: content search, regex:, dm:lastweek-style keywords (use dates), attributes.\n"
    "Examples:\n"
    "  ext:pdf dm:2026-10 invoice          PDFs modified in October 2026 with \"invoice\" in the name\n"
    "  folder: node_modules                folders named like node_modules\n"
    "  video: size:>1gb                    videos over 1 GB\n"
    "  path:/Users/me/Projects ext:rs !test";

}  // namespace tarv::SearchSyntax
