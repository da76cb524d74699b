#ifndef FAMILIES_H
#define FAMILIES_H

#include <prometheus/client_metric.h>
#include <prometheus/metric_family.h>
#include <prometheus/metric_type.h>

#include <string>
#include <vector>

/// \file
/// What the families of metrics are put together with.

using MetricLabels = std::vector<prometheus::ClientMetric::Label>;

/// A family of gauges or counters, still without series.
prometheus::MetricFamily MakeFamily(const char* name, const char* help,
                                    prometheus::MetricType type = prometheus::MetricType::Gauge);

/// Adds a series. No two series of a family may have the same labels.
void AddSeries(MetricLabels labels, double value, prometheus::MetricFamily* family);

/// Adds a family to `page`, unless it has no series.
void AddFamily(prometheus::MetricFamily family, std::vector<prometheus::MetricFamily>* page);

/// Adds a family with one series, which has these labels.
void AddSingle(prometheus::MetricFamily family, MetricLabels labels, double value,
               std::vector<prometheus::MetricFamily>* page);

/// A foreign text as the value of a label. It is repaired where it is not UTF-8, because Prometheus refuses a whole
/// page for one such text.
std::string LabelText(const std::string& text);

#endif  // FAMILIES_H
