#ifndef VIDORA_PULL_REPORT_H
#define VIDORA_PULL_REPORT_H

#include <string>

#include "Puller.h"

// The live status line, without a line end: time, pictures and bits a second since `before`, packets lost.
std::string StatusLine(const PullFigures& now, const PullFigures& before);
// The summary at the end: a few lines of text, or one JSON object.
std::string SummaryText(const PullFigures& figures);
std::string SummaryJson(const PullFigures& figures);

#endif  // VIDORA_PULL_REPORT_H
