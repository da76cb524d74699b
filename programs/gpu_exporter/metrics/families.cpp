#include "metrics/families.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

using prometheus::MetricFamily;
using prometheus::MetricType;

MetricFamily MakeFamily(const char* name, const char* help, MetricType type) {
    MetricFamily family;
    family.name = name;
    family.help = help;
    family.type = type;
    return family;
}

void AddSeries(MetricLabels labels, double value, MetricFamily* family) {
    prometheus::ClientMetric& series = family->metric.emplace_back();
    series.label = std::move(labels);
    (family->type == MetricType::Counter ? series.counter.value : series.gauge.value) = value;
}

void AddFamily(MetricFamily family, std::vector<MetricFamily>* page) {
    if (!family.metric.empty()) page->push_back(std::move(family));
}

void AddSingle(MetricFamily family, MetricLabels labels, double value, std::vector<MetricFamily>* page) {
    AddSeries(std::move(labels), value, &family);
    AddFamily(std::move(family), page);
}

std::string LabelText(const std::string& text) {
    using Json = nlohmann::json;
    constexpr unsigned char kFirstBeyondAscii = 0x80;
    const auto isAscii = [](char character) { return static_cast<unsigned char>(character) < kFirstBeyondAscii; };
    if (std::all_of(text.begin(), text.end(), isAscii)) return text;
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}
