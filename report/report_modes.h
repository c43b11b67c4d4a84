// The modes of quarn2_report. Each reads the site, writes its output and records its findings.
#pragma once

#include "report_site.h"

void RunStatus(Site& site);
void RunList(Site& site);
void RunHistory(Site& site);

// Sets the exit status of a monitoring plugin and does not throw for a state that cannot be read.
void RunCheck(Site& site);

// Throws std::runtime_error when the limits, or the size of the upload, are unknown.
void RunPlan(Site& site);

// Throws std::runtime_error when the day cannot be restored.
void RunChain(Site& site);
