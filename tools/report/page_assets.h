// The page's own files, as the build has put them into the program (tools/report/page).
#pragma once

extern const char kPageHtml[];  // with the marks <!--STYLE-->, <!--DATA--> and <!--SCRIPT--> where those go
extern const char kPageStyle[];
extern const char kPageScript[];  // all scripts, in their order
