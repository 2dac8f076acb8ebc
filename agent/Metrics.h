// The agent's figures as text for monitoring systems.
//
// Event thread only. Two formats, of the same content: OpenMetrics 1.0 and the Prometheus text
// format 0.0.4 (https://prometheus.io/docs/instrumenting/exposition_formats/). Names follow
// https://prometheus.io/docs/practices/naming/.
#pragma once

#include <cstdint>
#include <string>

#include "agent/Alarms.h"
#include "agent/Backlog.h"
#include "agent/Tables.h"

namespace Agent {

enum class MetricsFormat : std::uint8_t { openMetrics, prometheus };

/// What an HTTP answer of that format says it is.
const char* contentType(MetricsFormat format);

std::string metricsText(const Tables& tables, const Backlog& backlog, const Alarms& alarms,
                        double startTime, MetricsFormat format);

}  // namespace Agent
