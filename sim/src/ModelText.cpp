// The SIMCAM_MODEL text form: a preset followed by comma-separated settings applied left
// to right. The grammar is documented in sim/README.md.
#include "simcam/Model.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <functional>
#include <map>
#include <stdexcept>

namespace simcam {

namespace {

struct ErrnoName {
    const char* name;
    int value;
};
constexpr ErrnoName kErrnoNames[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT},       {"EINTR", EINTR},   {"EIO", EIO},
    {"ENXIO", ENXIO},   {"EAGAIN", EAGAIN},       {"ENOMEM", ENOMEM}, {"EACCES", EACCES},
    {"EBUSY", EBUSY},   {"ENODEV", ENODEV},       {"EINVAL", EINVAL}, {"ENOSPC", ENOSPC},
    {"EPIPE", EPIPE},   {"ENOTTY", ENOTTY},       {"ERANGE", ERANGE}, {"EPROTO", EPROTO},
    {"ETIMEDOUT", ETIMEDOUT}, {"EOVERFLOW", EOVERFLOW}, {"ESHUTDOWN", ESHUTDOWN},
};

std::string_view trim(std::string_view s)
{
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
        s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
        s.remove_suffix(1);
    return s;
}

std::vector<std::string_view> split(std::string_view s, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        size_t at = s.find(separator);
        parts.push_back(trim(s.substr(0, at)));
        if (at == std::string_view::npos)
            return parts;
        s.remove_prefix(at + 1);
    }
}

std::string lower(std::string_view s)
{
    std::string out(s);
    for (char& c : out)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Parsing state for one item; its errors name the item.
class Item {
public:
    explicit Item(std::string_view text) : text_(text) {}

    [[noreturn]] void fail(const std::string& why) const
    {
        throw std::invalid_argument("SIMCAM_MODEL item '" + std::string(text_) + "': " + why);
    }

    long number(std::string_view v, long min, long max) const
    {
        long n = 0;
        auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
        if (ec != std::errc() || end != v.data() + v.size() || v.empty())
            fail("'" + std::string(v) + "' is not a number");
        if (n < min || n > max)
            fail(std::to_string(n) + " is out of range " + std::to_string(min) + ".." +
                 std::to_string(max));
        return n;
    }

    int errnoValue(std::string_view v) const
    {
        for (const ErrnoName& e : kErrnoNames)
            if (lower(v) == lower(e.name))
                return e.value;
        if (!v.empty() && std::isdigit(static_cast<unsigned char>(v.front())))
            return int(number(v, 1, 4095));
        fail("unknown errno '" + std::string(v) + "'");
    }

    // "ERRNO" or "ERRNO<sep>N"; n stays `fallback` without a suffix.
    std::pair<int, int> errnoWithCount(std::string_view v, char sep, int fallback) const
    {
        size_t at = v.find(sep);
        if (at == std::string_view::npos)
            return {errnoValue(v), fallback};
        return {errnoValue(v.substr(0, at)), int(number(v.substr(at + 1), 0, 1 << 30))};
    }

    uint32_t fourccValue(std::string_view v) const
    {
        static const std::map<std::string, uint32_t> aliases = {
            {"h264", kFourccH264}, {"hevc", kFourccHEVC},   {"h265", kFourccHEVC},
            {"mjpg", kFourccMJPG}, {"mjpeg", kFourccMJPG},  {"yuyv", kFourccYUYV},
            {"nv12", kFourccNV12}, {"rgb3", kFourccRGB24},  {"rgb24", kFourccRGB24}};
        auto it = aliases.find(lower(v));
        if (it != aliases.end())
            return it->second;
        if (v.size() != 4)
            fail("'" + std::string(v) + "' is not a FourCC");
        return fourcc(v[0], v[1], v[2], v[3]);
    }

    std::pair<uint32_t, uint32_t> sizeValue(std::string_view v) const
    {
        size_t x = v.find_first_of("xX");
        if (x == std::string_view::npos)
            fail("size '" + std::string(v) + "' is not WxH");
        return {uint32_t(number(v.substr(0, x), 1, 16384)),
                uint32_t(number(v.substr(x + 1), 1, 16384))};
    }

    // "LO-HI" frames per second (continuous) or "LO-HI:N/D" (stepwise by N/D seconds).
    IntervalRange intervalRange(std::string_view v) const
    {
        const size_t dash = v.find('-');
        const size_t colon = v.find(':');
        const long lo = number(v.substr(0, dash), 1, 1000);
        const long hi = number(v.substr(dash + 1, colon == std::string_view::npos ? colon : colon - dash - 1), lo, 1000);
        IntervalRange r{{1, uint32_t(hi)}, {1, uint32_t(lo)}, {1, 1}};
        if (colon != std::string_view::npos) {
            const std::string_view step = v.substr(colon + 1);
            const size_t slash = step.find('/');
            if (slash == std::string_view::npos)
                fail("interval step '" + std::string(step) + "' is not N/D");
            r.step = {uint32_t(number(step.substr(0, slash), 1, 1000000)),
                      uint32_t(number(step.substr(slash + 1), 1, 1000000))};
        }
        return r;
    }

    // "WxH-WxH" (continuous) or "WxH-WxH:SWxSH" (stepwise).
    StepwiseSize sizeRange(std::string_view v) const
    {
        const size_t dash = v.find('-');
        const size_t colon = v.find(':');
        const auto [minW, minH] = sizeValue(v.substr(0, dash));
        const auto [maxW, maxH] = sizeValue(v.substr(dash + 1, colon == std::string_view::npos ? colon : colon - dash - 1));
        const auto [stepW, stepH] =
            colon == std::string_view::npos ? std::pair<uint32_t, uint32_t>{1, 1} : sizeValue(v.substr(colon + 1));
        if (minW > maxW || minH > maxH)
            fail("size range '" + std::string(v) + "' runs backwards");
        StepwiseSize r;
        r.minWidth = minW, r.maxWidth = maxW, r.stepWidth = stepW;
        r.minHeight = minH, r.maxHeight = maxH, r.stepHeight = stepH;
        return r;
    }

private:
    std::string_view text_;
};

// Which cameras and nodes an item applies to.
struct Scope {
    std::vector<Camera*> cameras;
    std::vector<Node*> nodes;
    bool qualified = false;
};

Scope resolveScope(Model& model, std::string_view qualifier, const Item& item)
{
    Scope scope;
    if (qualifier.empty()) {
        for (Camera& c : model.cameras) {
            scope.cameras.push_back(&c);
            for (Node& n : c.nodes)
                scope.nodes.push_back(&n);
        }
        return scope;
    }
    scope.qualified = true;
    if (qualifier.size() > 3 && qualifier.substr(0, 3) == "cam" &&
        std::isdigit(static_cast<unsigned char>(qualifier[3]))) {
        long index = item.number(qualifier.substr(3), 0, long(model.cameras.size()) - 1);
        Camera& c = model.cameras[size_t(index)];
        scope.cameras.push_back(&c);
        for (Node& n : c.nodes)
            scope.nodes.push_back(&n);
        return scope;
    }
    for (Camera& c : model.cameras)
        for (Node& n : c.nodes)
            if (n.name == qualifier) {
                scope.cameras.push_back(&c);
                scope.nodes.push_back(&n);
                return scope;
            }
    item.fail("no camera or node '" + std::string(qualifier) + "'");
}

// "video3" + 2 -> "video5"; names without a number get the offset appended.
// A node number too large to shift is refused rather than wrapped.
std::string renumber(const std::string& name, int offset, const Item& item)
{
    size_t digits = name.size();
    while (digits > 0 && std::isdigit(static_cast<unsigned char>(name[digits - 1])))
        --digits;
    if (digits == name.size())
        return name + std::to_string(offset);
    const long number = item.number(std::string_view(name).substr(digits), 0, 1 << 30);
    return name.substr(0, digits) + std::to_string(number + offset);
}

std::vector<Format> captureFormats(const Camera& camera)
{
    for (const Node& n : camera.nodes)
        if (n.kind == NodeKind::Capture)
            return n.formats;
    return preset("h264").cameras[0].nodes[0].formats;
}

using Handler = std::function<void(Model&, Scope&, std::string_view value, const Item&)>;

struct Setting {
    bool needsValue;
    Handler apply;
};

void forCaptureNodes(Scope& scope, const std::function<void(Node&)>& f)
{
    for (Node* n : scope.nodes)
        if (n->kind == NodeKind::Capture)
            f(*n);
}

Camera& singleCamera(Scope& scope, const Item& item)
{
    if (scope.cameras.empty())
        item.fail("the model has no camera");
    return *scope.cameras.front(); // unqualified camera settings mean camera 0
}

Setting fault(const std::function<void(Faults&, std::string_view, const Item&)>& f,
              bool needsValue = true)
{
    return {needsValue, [f](Model&, Scope& s, std::string_view v, const Item& item) {
                for (Node* n : s.nodes)
                    f(n->faults, v, item);
            }};
}

const std::map<std::string, Setting>& settings()
{
    static const std::map<std::string, Setting> table = {
        // Cameras and nodes.
        {"cameras", {true, [](Model& m, Scope&, std::string_view v, const Item& item) {
             long count = item.number(v, 1, 8);
             if (m.cameras.empty())
                 item.fail("the model has no camera to copy");
             Camera first = m.cameras.front();
             m.cameras.resize(1);
             for (int i = 1; i < count; ++i) {
                 Camera c = first;
                 c.card += " #" + std::to_string(i + 1);
                 c.devnum = first.devnum + i;
                 for (Node& n : c.nodes)
                     n.name = renumber(n.name, i * int(first.nodes.size()), item);
                 m.cameras.push_back(c);
             }
         }}},
        {"nodes", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             Camera& c = singleCamera(s, item);
             std::vector<Format> formats = captureFormats(c);
             std::vector<Node> nodes;
             for (std::string_view config : split(v, '/')) {
                 Node n;
                 size_t colon = config.find(':');
                 n.name = std::string(config.substr(0, colon));
                 std::string kind = colon == std::string_view::npos ? "capture"
                                                                    : lower(config.substr(colon + 1));
                 if (kind == "meta")
                     n.kind = NodeKind::Metadata;
                 else if (kind == "capture")
                     n.formats = formats;
                 else
                     item.fail("node kind must be 'capture' or 'meta'");
                 if (n.name.empty())
                     item.fail("empty node name");
                 nodes.push_back(n);
             }
             c.nodes = nodes;
         }}},
        {"usb", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             Camera& c = singleCamera(s, item);
             if (v == "device")
                 c.attachment = Attachment::UsbDevice;
             else if (v == "interface")
                 c.attachment = Attachment::UsbInterface;
             else if (v == "none")
                 c.attachment = Attachment::Platform;
             else
                 item.fail("usb must be device, interface or none");
         }}},
        {"bus", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).busnum = int(item.number(v, 1, 999));
         }}},
        {"dev", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).devnum = int(item.number(v, 1, 999));
         }}},
        {"card", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).card = std::string(v);
         }}},
        {"xu", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).extensionUnit = int(item.number(v, 0, 255));
         }}},
        {"noreplug", {false, [](Model&, Scope& s, std::string_view, const Item& item) {
             singleCamera(s, item).resetReplugs = false;
         }}},
        {"replug", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).replugMs = int(item.number(v, 0, 3600 * 1000));
         }}},
        {"usbopen", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).usbOpenErrno = item.errnoValue(v);
         }}},
        {"reset", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             singleCamera(s, item).resetErrno = item.errnoValue(v);
         }}},
        // Formats of capture nodes.
        {"formats", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             std::vector<uint32_t> wanted;
             for (std::string_view f : split(v, '/'))
                 wanted.push_back(item.fourccValue(f));
             forCaptureNodes(s, [&](Node& n) {
                 std::vector<Format> next;
                 for (uint32_t fcc : wanted) {
                     Format f;
                     f.fourcc = fcc;
                     f.description = formatDescription(fcc);
                     f.sizes = n.formats.empty() ? preset("h264").cameras[0].nodes[0].formats[0].sizes
                                                 : n.formats.front().sizes;
                     for (const Format& have : n.formats)
                         if (have.fourcc == fcc)
                             f = have;
                     next.push_back(f);
                 }
                 n.formats = next;
             });
         }}},
        {"size", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             if (v.find('-') != std::string_view::npos) {
                 const StepwiseSize range = item.sizeRange(v);
                 forCaptureNodes(s, [&](Node& n) {
                     for (Format& f : n.formats) {
                         StepwiseSize r = range;
                         r.intervals = f.stepwise ? f.stepwise->intervals
                                       : f.sizes.empty() ? std::vector<Interval>{{1, 30}}
                                                         : f.sizes.front().intervals;
                         f.sizes.clear();
                         f.stepwise = r;
                     }
                 });
                 return;
             }
             std::vector<std::pair<uint32_t, uint32_t>> sizes;
             for (std::string_view part : split(v, '/'))
                 sizes.push_back(item.sizeValue(part));
             forCaptureNodes(s, [&](Node& n) {
                 for (Format& f : n.formats) {
                     std::vector<Interval> intervals = f.stepwise ? f.stepwise->intervals
                                                       : f.sizes.empty() ? std::vector<Interval>{{1, 30}}
                                                                         : f.sizes.front().intervals;
                     f.sizes.clear();
                     f.stepwise.reset();
                     for (auto [w, h] : sizes)
                         f.sizes.push_back({w, h, intervals});
                 }
             });
         }}},
        {"fps", {true, [](Model& m, Scope& s, std::string_view v, const Item& item) {
             std::optional<IntervalRange> range;
             if (v.find('-') != std::string_view::npos)
                 range = item.intervalRange(v);
             forCaptureNodes(s, [&](Node& n) {
                 for (Format& f : n.formats)
                     f.intervalRange = range;
             });
             if (range)
                 v = v.substr(v.find('-') + 1, v.find(':') - v.find('-') - 1); // lists offer the highest rate
             std::vector<Interval> intervals;
             for (std::string_view part : split(v, '/')) {
                 long fps = item.number(part, 0, 1000);
                 if (fps == 0)
                     m.unthrottled = true;
                 else
                     intervals.push_back({1, uint32_t(fps)});
             }
             if (intervals.empty())
                 return;
             forCaptureNodes(s, [&](Node& n) {
                 for (Format& f : n.formats) {
                     for (FrameSize& size : f.sizes)
                         size.intervals = intervals;
                     if (f.stepwise)
                         f.stepwise->intervals = intervals;
                 }
             });
         }}},
        {"hevcmin", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             size_t bytes = size_t(item.number(v, 0, 1L << 30));
             forCaptureNodes(s, [&](Node& n) { n.content.hevcMinFrameBytes = bytes; });
         }}},
        {"gop", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             int frames = int(item.number(v, 1, 1000));
             forCaptureNodes(s, [&](Node& n) { n.content.keyInterval = frames; });
         }}},
        {"clip", {true, [](Model&, Scope& s, std::string_view v, const Item& item) {
             int frames = int(item.number(v, 1, 1000));
             forCaptureNodes(s, [&](Node& n) { n.content.clipFrames = frames; });
         }}},
        // The whole model.
        {"others", {true, [](Model& m, Scope&, std::string_view v, const Item&) {
             m.otherDevNames.clear();
             for (std::string_view name : split(v, '/'))
                 if (!name.empty())
                     m.otherDevNames.emplace_back(name);
         }}},
        {"unthrottled", {false, [](Model& m, Scope&, std::string_view, const Item&) {
             m.unthrottled = true;
         }}},
        // Faults of nodes.
        {"open", fault([](Faults& f, std::string_view v, const Item& i) { f.openErrno = i.errnoValue(v); })},
        {"busy", fault([](Faults& f, std::string_view, const Item&) { f.busy = true; }, false)},
        {"nocap", fault([](Faults& f, std::string_view, const Item&) { f.noCaptureCap = true; }, false)},
        {"querycap", fault([](Faults& f, std::string_view v, const Item& i) { f.querycapErrno = i.errnoValue(v); })},
        {"sfmt", fault([](Faults& f, std::string_view v, const Item& i) {
             std::tie(f.sfmtErrno, f.sfmtCount) = i.errnoWithCount(v, '*', -1);
         })},
        {"parm", fault([](Faults& f, std::string_view v, const Item& i) { f.parmErrno = i.errnoValue(v); })},
        {"reqbufs", fault([](Faults& f, std::string_view v, const Item& i) { f.reqbufsErrno = i.errnoValue(v); })},
        {"grant", fault([](Faults& f, std::string_view v, const Item& i) { f.grantBuffers = int(i.number(v, 0, 32)); })},
        {"querybuf", fault([](Faults& f, std::string_view v, const Item& i) {
             std::tie(f.querybufErrno, f.querybufIndex) = i.errnoWithCount(v, '@', -1);
         })},
        {"qbuf", fault([](Faults& f, std::string_view v, const Item& i) {
             std::tie(f.qbufErrno, f.qbufIndex) = i.errnoWithCount(v, '@', -1);
         })},
        {"qbuf-stream", fault([](Faults& f, std::string_view v, const Item& i) {
             std::tie(f.streamQbufErrno, f.streamQbufAfter) = i.errnoWithCount(v, '@', 0);
         })},
        {"streamon", fault([](Faults& f, std::string_view v, const Item& i) { f.streamonErrno = i.errnoValue(v); })},
        {"stall", fault([](Faults& f, std::string_view, const Item&) { f.stall = true; }, false)},
        {"stallafter", fault([](Faults& f, std::string_view v, const Item& i) {
             f.stall = true;
             f.stallAfter = int(i.number(v, 0, 1 << 30));
         })},
        {"empty", fault([](Faults& f, std::string_view v, const Item& i) { f.emptyEvery = int(i.number(v, 1, 1 << 30)); })},
        {"dqbuf", fault([](Faults& f, std::string_view v, const Item& i) {
             std::tie(f.dqbufErrno, f.dqbufAfter) = i.errnoWithCount(v, '@', 0);
         })},
        {"unplug", fault([](Faults& f, std::string_view v, const Item& i) {
             f.dqbufErrno = ENODEV;
             f.dqbufAfter = int(i.number(v, 0, 1 << 30));
         })},
        {"badindex", fault([](Faults& f, std::string_view v, const Item& i) { f.badIndex = int(i.number(v, 0, 1 << 30)); })},
        {"overrun", fault([](Faults& f, std::string_view v, const Item& i) {
             f.bytesusedExtra = uint32_t(i.number(v, 1, 1 << 30));
         })},
        {"nokeyctl", fault([](Faults& f, std::string_view, const Item&) { f.noKeyFrameControl = true; }, false)},
        {"nomemfd", fault([](Faults& f, std::string_view, const Item&) { f.refuseMemfd = true; }, false)},
    };
    return table;
}

bool isPreset(std::string_view name)
{
    for (const std::string& p : presetNames())
        if (p == name)
            return true;
    return false;
}

} // namespace

Model parseModel(std::string_view text)
{
    std::vector<std::string_view> items = split(text, ',');
    Model model = preset("h264");
    size_t first = 0;
    if (!items.empty() && isPreset(lower(items.front()))) {
        model = preset(lower(items.front()));
        first = 1;
    }
    for (size_t i = first; i < items.size(); ++i) {
        std::string_view raw = items[i];
        if (raw.empty())
            continue;
        Item item(raw);
        if (isPreset(lower(raw)))
            item.fail("a preset may only come first");
        size_t eq = raw.find('=');
        std::string_view key = trim(raw.substr(0, eq));
        std::string_view value = eq == std::string_view::npos ? std::string_view{}
                                                              : trim(raw.substr(eq + 1));
        // Only the last dot separates a scope: node names may not contain one.
        size_t dot = key.rfind('.');
        std::string_view qualifier = dot == std::string_view::npos ? std::string_view{}
                                                                   : key.substr(0, dot);
        std::string name = lower(dot == std::string_view::npos ? key : key.substr(dot + 1));

        auto it = settings().find(name);
        if (it == settings().end())
            item.fail("unknown setting '" + name + "'");
        if (it->second.needsValue && eq == std::string_view::npos)
            item.fail("'" + name + "' needs a value");
        if (!it->second.needsValue && eq != std::string_view::npos)
            item.fail("'" + name + "' takes no value");
        Scope scope = resolveScope(model, qualifier, item);
        it->second.apply(model, scope, value, item);
    }
    return model;
}

} // namespace simcam
