#include "tools/plot.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "tools/html_text.h"

namespace tesk::tool {

namespace {

// Places in the drawing, in its own units.
constexpr double WIDTH = 400;
constexpr double HEIGHT = 231;
constexpr double Y_TITLE_AT = 13;  // baselines of texts, from the top
constexpr double MARKER_LABEL_AT = 30;
constexpr double TOP = 44;  // of the bars
constexpr double BOTTOM = 188;
constexpr double TICK_LABELS_AT = 208;
constexpr double X_TITLE_AT = 226;
constexpr double RIGHT = 390;
constexpr double LABEL_GAP = 8;

std::string coordinate(double number) { return plain(number, 2); }

// How wide a label is at most, in fonts that are usual; some are bold.
double width_of(std::string const& label) {
    constexpr double NARROW = 5;
    constexpr double DIGIT = 9.2;
    constexpr double CAPITAL = 11;
    double width = 0;
    for (char const c : label) {
        bool const is_narrow = c == ',' || c == '.' || c == ' ';
        width += is_narrow ? NARROW : c >= 'A' && c <= 'Z' ? CAPITAL : DIGIT;
    }
    return width;
}

// A label centred over a place, or as close to that as keeps it inside the drawing.
struct PlacedLabel {
    double left;
    double right;

    PlacedLabel(double centre, std::string const& label) {
        double const width = width_of(label);
        left = std::clamp(centre - width / 2, 0.0, WIDTH - width);
        right = left + width;
    }
};

// --- Axes ----------------------------------------------------------------------

struct YAxis {
    std::uint64_t end = 1;  // what its top stands for
    std::uint64_t step = 1;
    std::uint64_t unit = 1;  // that labels count in
    std::string unit_name;
};

// At most five steps up to what holds the largest count.
YAxis y_axis_of(std::vector<Bar> const& bars) {
    constexpr std::uint64_t MAX_STEPS = 5;
    YAxis axis;
    std::uint64_t max = 1;
    for (Bar const& bar : bars) max = std::max(max, bar.count);
    std::uint64_t power = 1;
    while (power * 5 * MAX_STEPS < max) power *= 10;
    for (std::uint64_t const factor : {5U, 2U, 1U}) {
        if (factor * power * MAX_STEPS >= max) axis.step = factor * power;
    }
    axis.end = (max + axis.step - 1) / axis.step * axis.step;
    constexpr std::uint64_t SHORT = 100'000;  // labels below this take little room
    constexpr std::uint64_t THOUSAND = 1000;
    for (char const* const name : {"thousands", "millions", "billions"}) {
        if (axis.end / axis.unit < SHORT) break;
        axis.unit *= THOUSAND;
        axis.unit_name = name;
    }
    return axis;
}

Tick whole_tick(std::int64_t at) {
    return {static_cast<double>(at), grouped(static_cast<std::uint64_t>(at))};
}

// None where there would be far too many.
std::vector<Tick> linear_ticks(double begin, double end, std::int64_t step) {
    constexpr double MAX_TICKS = 40;
    auto const width = static_cast<double>(step);
    std::vector<Tick> ticks;
    if ((end - begin) / width > MAX_TICKS) return ticks;
    auto const last = static_cast<std::int64_t>(std::floor(end / width));
    for (auto i = static_cast<std::int64_t>(std::ceil(begin / width)); i <= last; ++i) {
        ticks.push_back(whole_tick(i * step));
    }
    return ticks;
}

// At some places of every decade, or of every second or third one.
std::vector<Tick> logarithmic_ticks(double begin, double end, std::int64_t decade,
                                    std::initializer_list<std::int64_t> factors) {
    std::vector<Tick> ticks;
    for (std::int64_t power = 1; static_cast<double>(power) <= end; power *= decade) {
        for (std::int64_t const factor : factors) {
            Tick tick = whole_tick(power * factor);
            if (tick.at >= begin && tick.at <= end) ticks.push_back(std::move(tick));
        }
    }
    return ticks;
}

// --- The drawing -----------------------------------------------------------------

class Drawing {
public:
    explicit Drawing(Plot const& plot) : plot_(plot), y_axis_(y_axis_of(plot.bars)) {
        left_ = width_of(grouped(y_axis_.end / y_axis_.unit)) + LABEL_GAP;
    }

    std::string svg() {
        begin();
        draw_y_axis();
        draw_bars();
        draw_x_axis();
        draw_marker();
        return svg_ + "</svg>";
    }

private:
    double x_of(double value) const {
        auto const along = [&](double v) { return plot_.is_logarithmic ? std::log10(v) : v; };
        double const share =
            (along(value) - along(plot_.begin)) / (along(plot_.end) - along(plot_.begin));
        return left_ + share * (RIGHT - left_);
    }
    double y_of(std::uint64_t count) const {
        double const share = static_cast<double>(count) / static_cast<double>(y_axis_.end);
        return BOTTOM - share * (BOTTOM - TOP);
    }

    void begin() {
        svg_ = "<svg class=\"plot\" id=\"" + plot_.id + "\" viewBox=\"0 0 " + coordinate(WIDTH) +
               " " + coordinate(HEIGHT) + "\" role=\"img\" aria-labelledby=\"" + plot_.id +
               "-title " + plot_.id + "-desc\"><title id=\"" + plot_.id + "-title\">" +
               html_text(plot_.title) + "</title><desc id=\"" + plot_.id + "-desc\">" +
               html_text(plot_.description) + "</desc>\n";
    }
    void line(char const* css_class, double x1, double y1, double x2, double y2) {
        svg_ += std::string("<path class=\"") + css_class + "\" d=\"M" + coordinate(x1) + " " +
                coordinate(y1) + "L" + coordinate(x2) + " " + coordinate(y2) + "\"/>\n";
    }
    void text(char const* css_class, char const* anchor, double x, double y,
              std::string const& words) {
        svg_ += std::string("<text class=\"") + css_class + "\" text-anchor=\"" + anchor +
                "\" x=\"" + coordinate(x) + "\" y=\"" + coordinate(y) + "\">" + html_text(words) +
                "</text>\n";
    }
    // The text may be narrower than thought: its anchor keeps it where it belongs.
    void label(char const* css_class, double at, double y, std::string const& words) {
        PlacedLabel const placed(at, words);
        bool const at_begin = placed.left == 0;
        bool const at_end = placed.right >= WIDTH;
        text(css_class,
             at_begin ? "start"
             : at_end ? "end"
                      : "middle",
             at_begin ? 0
             : at_end ? WIDTH
                      : at,
             y, words);
    }
    void draw_y_axis() {
        constexpr double BASELINE = 4;  // of digits below their middle
        for (std::uint64_t count = 0; count <= y_axis_.end; count += y_axis_.step) {
            double const y = y_of(count);
            line(count == 0 ? "axis" : "grid", left_, y, RIGHT, y);
            text("tick", "end", left_ - LABEL_GAP / 2, y + BASELINE, grouped(count / y_axis_.unit));
        }
        std::string title = plot_.y_noun + "s";
        title[0] = static_cast<char>(title[0] - 'a' + 'A');
        if (!y_axis_.unit_name.empty()) title += ", " + y_axis_.unit_name;
        text("name", "start", 0, Y_TITLE_AT, title);
    }
    void draw_bars() {
        constexpr double MIN_HEIGHT = 1;  // else rare values would not be seen
        for (Bar const& bar : plot_.bars) {
            if (bar.count == 0) continue;
            double const x = x_of(bar.begin);
            double const width = x_of(bar.end) - x;
            double const gap = std::min(1.0, width / 4);
            double const height = std::max(BOTTOM - y_of(bar.count), MIN_HEIGHT);
            svg_ += "<rect class=\"bar\" x=\"" + coordinate(x + gap / 2) + "\" y=\"" +
                    coordinate(BOTTOM - height) + "\" width=\"" + coordinate(width - gap) +
                    "\" height=\"" + coordinate(height) + "\"><title>" +
                    html_text(bar.label + ": " + counted(bar.count, plot_.y_noun)) +
                    "</title></rect>\n";
        }
    }
    void draw_x_axis() {
        constexpr double MARK = 4;
        for (Tick const& tick : x_ticks()) {
            double const x = x_of(tick.at);
            line("axis", x, BOTTOM, x, BOTTOM + MARK);
            label("tick", x, TICK_LABELS_AT, tick.label);
        }
        text("name", "middle", (left_ + RIGHT) / 2, X_TITLE_AT, plot_.x_title);
    }
    void draw_marker() {
        if (!plot_.marker) return;
        double const x = x_of(plot_.marker->at);
        line("marker", x, MARKER_LABEL_AT + 3, x, BOTTOM);
        label("marked", x, MARKER_LABEL_AT, plot_.marker->label);
    }

    bool are_apart(Tick const& a, Tick const& b) const {
        PlacedLabel const first(x_of(a.at), a.label);
        PlacedLabel const second(x_of(b.at), b.label);
        return first.right + LABEL_GAP <= second.left || second.right + LABEL_GAP <= first.left;
    }
    // @param ticks  in rising order
    bool fit(std::vector<Tick> const& ticks) const {
        auto const meet = [&](Tick const& a, Tick const& b) { return !are_apart(a, b); };
        return std::adjacent_find(ticks.begin(), ticks.end(), meet) == ticks.end();
    }
    // Those ticks of a set that leave room for the given ones, and these.
    std::vector<Tick> with_given(std::vector<Tick> const& set) const {
        std::vector<Tick> ticks = plot_.given_ticks;
        std::copy_if(set.begin(), set.end(), std::back_inserter(ticks), [&](Tick const& tick) {
            return std::all_of(plot_.given_ticks.begin(), plot_.given_ticks.end(),
                               [&](Tick const& given) { return are_apart(tick, given); });
        });
        std::sort(ticks.begin(), ticks.end(),
                  [](Tick const& a, Tick const& b) { return a.at < b.at; });
        return ticks;
    }
    // Sets of ticks, the largest first.
    std::vector<std::vector<Tick>> possible_ticks() const {
        double const end = plot_.ticks_end;
        std::vector<std::vector<Tick>> sets;
        if (plot_.is_logarithmic) {
            sets.push_back(logarithmic_ticks(plot_.begin, end, 10, {1, 2, 5}));
            sets.push_back(logarithmic_ticks(plot_.begin, end, 10, {1, 3}));
            sets.push_back(logarithmic_ticks(plot_.begin, end, 10, {1}));
            sets.push_back(logarithmic_ticks(plot_.begin, end, 100, {1}));
            sets.push_back(logarithmic_ticks(plot_.begin, end, 1000, {1}));
            return sets;
        }
        for (std::int64_t power = 1; static_cast<double>(power) <= end; power *= 10) {
            for (std::int64_t const factor : {1, 2, 5}) {
                sets.push_back(linear_ticks(plot_.begin, end, power * factor));
            }
        }
        return sets;
    }
    // As many as have room; the given ones always have.
    std::vector<Tick> x_ticks() const {
        for (std::vector<Tick> const& set : possible_ticks()) {
            std::vector<Tick> ticks = with_given(set);
            if (!set.empty() && fit(ticks)) return ticks;
        }
        return with_given({});
    }

    Plot const& plot_;
    YAxis y_axis_;
    double left_;  // of the bars
    std::string svg_;
};

}  // namespace

std::string svg_of(Plot const& plot) { return Drawing(plot).svg(); }

}  // namespace tesk::tool
