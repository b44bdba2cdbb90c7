#include "tools/quorbpfctl/rate_plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr double kWidth = 960;
constexpr double kHeight = 500;
constexpr double kLeft = 80;
constexpr double kRight = 250;  // room for the legend
constexpr double kTop = 50;
constexpr double kBottom = 60;
constexpr double kPlotWidth = kWidth - kLeft - kRight;
constexpr double kPlotHeight = kHeight - kTop - kBottom;

const char* const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                "#9467bd", "#8c564b", "#e377c2", "#17becf"};
static_assert(sizeof(kColours) / sizeof(kColours[0]) == kStateTypes,
              "one line colour per kernel event type");

std::string Number(double value) {
    char text[32];
    if (value == std::floor(value) && std::fabs(value) < 1e15) {
        snprintf(text, sizeof(text), "%.0f", value);
    } else {
        snprintf(text, sizeof(text), "%.1f", value);
    }
    return text;
}

std::string Coord(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f", value);
    return text;
}

std::string XmlEscape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // Control characters are not allowed in XML 1.0 text.
                if (static_cast<unsigned char>(c) >= 0x20 || c == '\t') out += c;
        }
    }
    return out;
}

// A tick step of 1, 2 or 5 times a power of ten giving at most `maxTicks`.
double NiceStep(double range, int maxTicks) {
    if (range <= 0) return 1;
    const double raw = range / maxTicks;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (factor * power >= raw) return factor * power;
    }
    return 10 * power;
}

std::string Text(double x, double y, const std::string& anchor, const std::string& body,
                 const std::string& extra = "") {
    return "<text x=\"" + Coord(x) + "\" y=\"" + Coord(y) + "\" text-anchor=\"" + anchor + "\"" +
           extra + ">" + XmlEscape(body) + "</text>\n";
}

}  // namespace

std::string RenderRatePlotSvg(const StateTable& table, bool logScale, const std::string& title) {
    // Whole seconds, oldest first; the newest row is the second in progress.
    std::vector<const std::array<uint64_t, kStateColumns>*> seconds;
    const size_t first = table.rows.size() > 1 ? 1 : 0;
    for (size_t i = table.rows.size(); i > first; --i) seconds.push_back(&table.rows[i - 1]);
    const size_t count = seconds.size();

    std::array<uint64_t, kStateTypes> totals = {};
    double maxRate = 0;
    for (const auto* row : seconds) {
        for (size_t k = 0; k < kStateTypes; ++k) {
            totals[k] += (*row)[k];
            maxRate = std::max(maxRate, static_cast<double>((*row)[k]));
        }
    }

    // y scale: value -> pixel.
    double yMax = 0;
    std::vector<std::pair<double, std::string>> yTicks;  // (value, label)
    if (logScale) {
        const int decades = std::max(1, static_cast<int>(std::ceil(std::log10(maxRate + 1))));
        yMax = decades;
        yTicks.push_back({0, "0"});
        for (int d = 0; d <= decades; ++d)
            yTicks.push_back({std::log10(std::pow(10.0, d) + 1), Number(std::pow(10.0, d))});
        yMax = std::log10(std::pow(10.0, decades) + 1);
    } else {
        const double step = NiceStep(std::max(maxRate, 1.0), 5);
        yMax = std::ceil(std::max(maxRate, 1.0) / step) * step;
        for (double v = 0; v <= yMax + step / 2; v += step) yTicks.push_back({v, Number(v)});
    }
    const auto yOf = [&](double rate) {
        const double v = logScale ? std::log10(rate + 1) : rate;
        return kTop + kPlotHeight - v / yMax * kPlotHeight;
    };
    const auto yOfScaled = [&](double v) { return kTop + kPlotHeight - v / yMax * kPlotHeight; };
    // x: seconds before the newest whole second; count - 1 .. 0.
    const double span = count > 1 ? static_cast<double>(count - 1) : 1.0;
    const auto xOf = [&](double secondsAgo) {
        return kLeft + kPlotWidth - secondsAgo / span * kPlotWidth;
    };

    std::string svg;
    svg += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + Number(kWidth) + "\" height=\"" +
           Number(kHeight) + "\" viewBox=\"0 0 " + Number(kWidth) + " " + Number(kHeight) +
           "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg += Text(kWidth / 2 - kRight / 2 + kLeft / 2, 28, "middle", title,
                " font-size=\"16\" font-weight=\"bold\"");

    // Grid and y ticks.
    for (const auto& [value, label] : yTicks) {
        const double y = yOfScaled(value);
        svg += "<line x1=\"" + Coord(kLeft) + "\" y1=\"" + Coord(y) + "\" x2=\"" +
               Coord(kLeft + kPlotWidth) + "\" y2=\"" + Coord(y) +
               "\" stroke=\"#e0e0e0\" stroke-width=\"1\"/>\n";
        svg += Text(kLeft - 8, y + 4, "end", label);
    }
    // x ticks.
    const double xStep = std::max(1.0, NiceStep(span, 8));
    for (double ago = 0; ago <= span + 1e-9; ago += xStep) {
        const double x = xOf(ago);
        svg += "<line x1=\"" + Coord(x) + "\" y1=\"" + Coord(kTop + kPlotHeight) + "\" x2=\"" +
               Coord(x) + "\" y2=\"" + Coord(kTop + kPlotHeight + 5) +
               "\" stroke=\"black\" stroke-width=\"1\"/>\n";
        svg += Text(x, kTop + kPlotHeight + 20, "middle", ago == 0 ? "0" : "-" + Number(ago));
    }
    // Axes.
    svg += "<line x1=\"" + Coord(kLeft) + "\" y1=\"" + Coord(kTop) + "\" x2=\"" + Coord(kLeft) +
           "\" y2=\"" + Coord(kTop + kPlotHeight) + "\" stroke=\"black\" stroke-width=\"1.5\"/>\n";
    svg += "<line x1=\"" + Coord(kLeft) + "\" y1=\"" + Coord(kTop + kPlotHeight) + "\" x2=\"" +
           Coord(kLeft + kPlotWidth) + "\" y2=\"" + Coord(kTop + kPlotHeight) +
           "\" stroke=\"black\" stroke-width=\"1.5\"/>\n";
    svg += Text(kLeft + kPlotWidth / 2, kHeight - 15, "middle", "seconds before the dump");
    svg += Text(20, kTop + kPlotHeight / 2, "middle",
                logScale ? "events per second (log scale)" : "events per second",
                " transform=\"rotate(-90 20 " + Coord(kTop + kPlotHeight / 2) + ")\"");

    // One polyline per type with data, and its legend entry.
    double legendY = kTop + 10;
    const double legendX = kLeft + kPlotWidth + 20;
    svg += Text(legendX, legendY, "start", "type (mean events/s)", " font-weight=\"bold\"");
    bool any = false;
    for (size_t k = 0; k < kStateTypes; ++k) {
        if (totals[k] == 0) continue;
        any = true;
        std::string points;
        for (size_t i = 0; i < count; ++i) {
            if (!points.empty()) points += ' ';
            points += Coord(xOf(static_cast<double>(count - 1 - i))) + "," +
                      Coord(yOf(static_cast<double>((*seconds[i])[k])));
        }
        svg += "<polyline fill=\"none\" stroke=\"" + std::string(kColours[k]) +
               "\" stroke-width=\"1.5\" points=\"" + points + "\"><title>" +
               XmlEscape(table.names[k]) + "</title></polyline>\n";
        legendY += 20;
        svg += "<line x1=\"" + Coord(legendX) + "\" y1=\"" + Coord(legendY - 4) + "\" x2=\"" +
               Coord(legendX + 20) + "\" y2=\"" + Coord(legendY - 4) + "\" stroke=\"" +
               kColours[k] + "\" stroke-width=\"3\"/>\n";
        svg +=
            Text(legendX + 26, legendY, "start",
                 table.names[k] + " (" +
                     Number(count == 0 ? 0.0 : std::round(10.0 * totals[k] / count) / 10.0) + ")");
    }
    if (!any) {
        svg += Text(kLeft + kPlotWidth / 2, kTop + kPlotHeight / 2, "middle",
                    "no events in the window");
        svg += Text(legendX, legendY + 20, "start", "(none)");
    }
    svg += "</svg>\n";
    return svg;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
