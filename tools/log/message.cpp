#include "tools/log/message.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "tools/base/cursor.h"

namespace tools {
namespace {

using enum MessageKind;

// The forms, those that a frame leaves most often first: they are tried in this order.
constexpr MessageForm FORMS[] = {
    {StageStart, FACADE_TAG, "TcfbtNotifyStageStart",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}", ""},
    {StageEnd, FACADE_TAG, "TcfbtNotifyStageEnd",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}", ""},
    {NodeEnd, FACADE_TAG, "TcfbtNotifyNodeEnd",
     "halFrameNumber = {frame}, nodeName = {name}, stage = {stage}, maxStageCnt = {count}, "
     "portId = {port}, currentCameraId = {camera}, isMaterCamera = {flag}"},
    {FrameStart, FACADE_TAG, "TcfbtNotifyFrameStart", "halFrameNumber = {frame}", ""},
    {FrameEnd, FACADE_TAG, "TcfbtNotifyFrameEnd", "halFrameNumber = {frame}", ""},
    {FrameAdded, UTILS_TAG, "CheckIfCouldStartFrame", "new frame added, is error = {flag}"},
    {FrameAlreadyExists, UTILS_TAG, "CheckIfCouldStartFrame", "frameNumber: {frame} already exists",
     "already in flight"},
    {FrameNotContinuous, UTILS_TAG, "CheckIfCouldStartFrame",
     "frameNumber continuity check fail, lastFrameNumber: {lastFrame}, "
     "current frameNumber: {frame}",
     "does not follow the newest frame"},
    {TableFull, UTILS_TAG, "CheckIfCouldStartFrame",
     "current frameData size({count}) > MAX_FRAME_TRACKED({limit}), mark and notify frame error"},
    {EndedFrameNotExist, UTILS_TAG, "CheckIfCouldEndFrame", "frameNumber: {frame} not exist",
     "not in flight"},
    {FrameNotExist, UTILS_TAG, "CheckFrameStatus", "frameNumber not exist, frameNumber = {frame}",
     "the frame is not in flight"},
    {FrameInError, UTILS_TAG, "CheckFrameStatus",
     "is error frame, notify frame error, frameNumber = {frame}", "the frame is in error"},
    {FrameRemoved, UTILS_TAG, "CheckFrameStatus", "remove frame, frameNumber = {frame}",
     "the frame is not in flight"},
    {FrameNotExist, UTILS_TAG, "CheckStagesStatus", "frameNumber not exist, frameNumber = {frame}",
     "the frame is not in flight"},
    {StageNotInRange, UTILS_TAG, "CheckStagesStatus",
     "stage error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "stageCount = {count}",
     "no such stage"},
    {StageOutOfOrder, UTILS_TAG, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "error stage = {otherStage}",
     "out of order with another stage"},
    {StageOutOfTurn, UTILS_TAG, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}",
     "the stage has run already, or has not started"},
    {NoVideo, FACADE_TAG, "TcfbtSetSceneInfo",
     "isVideo ={flag}, resolution = {width}, fps = {fps}, mFps = {acceptedFps}, "
     "cfbtScene = {scene}"},
    {Video, FACADE_TAG, "TcfbtSetSceneInfo",
     "resolution = {width}, fps = {fps}, mFps = {acceptedFps}, cfbtScene = {scene}"},
    {SceneDisabled, FACADE_TAG, "TcfbtNotifySceneStart", "cameraframeboost disabled"},
    {SceneStart, FACADE_TAG, "TcfbtNotifySceneStart", "isSceneStarted = {truth}"},
    {SceneEnd, FACADE_TAG, "TcfbtNotifySceneEnd", ""},
    {SetTid, FACADE_TAG, "TcfbtSetTids", "tid = {tid} "},
    {RemoveTid, FACADE_TAG, "TcfbtRemoveTids", "tid = {tid}"},
    {AddPersistTid, FACADE_TAG, "TcfbtAddPersistTids", "name = {name}, tid = {tid} "},
    {DumpInfo, FACADE_TAG, "DumpInfo", "DumpInfo PersistTids size = {count}"},
    {DumpSwitch, UTILS_TAG, "DumpConfig", "frameboost enable = {flag}"},
    {DumpModes, UTILS_TAG, "DumpConfig", "supportOperationModeList = {list}"},
    {DumpStage, UTILS_TAG, "DumpConfig", "stage = {stage}, nodename = {name}, nodeport = {list}"},
};

// Where the value of a field goes; the first is none.
using Target = std::variant<std::monostate, bool Message::*, int32_t Message::*, int64_t Message::*,
                            std::string_view Message::*>;
constexpr std::pair<std::string_view, Target> FIELDS[] = {
    {"flag", &Message::flag},   {"truth", &Message::flag},
    {"stage", &Message::stage}, {"otherStage", &Message::otherStage},
    {"count", &Message::count}, {"limit", &Message::limit},
    {"port", &Message::port},   {"camera", &Message::camera},
    {"width", &Message::width}, {"fps", &Message::fps},
    {"scene", &Message::scene}, {"acceptedFps", &Message::acceptedFps},
    {"tid", &Message::tid},     {"frame", &Message::frame},
    {"name", &Message::name},   {"lastFrame", &Message::lastFrame},
    {"list", &Message::list},
};

// A form's text, cut up: words that stand as they are, each followed by a field.
struct Part {
    std::string_view words{};
    Target target{};
};
using Parts = std::array<Part, 9>;  // The last one has no target.

constexpr Parts CutUp(std::string_view text) {
    Parts parts{};
    size_t next = 0;
    for (size_t open = 0; (open = text.find('{')) != std::string_view::npos; ++next) {
        const size_t close = text.find('}');
        parts[next].words = text.substr(0, open);
        for (const auto& [name, target] : FIELDS) {
            if (name == text.substr(open + 1, close - open - 1)) {
                parts[next].target = target;
            }
        }
        if (parts[next].target.index() == 0) {
            throw "a field without a place";
        }
        text.remove_prefix(close + 1);
    }
    parts[next].words = text;
    return parts;
}

constexpr auto CUT_UP_FORMS = [] {
    std::array<Parts, std::size(FORMS)> parts{};
    for (size_t i = 0; i < parts.size(); ++i) {
        parts[i] = CutUp(FORMS[i].text);
    }
    return parts;
}();

// These take the value of a field, by its type. Of flags, some statements write 1 and 0, some true
// and false.
bool Take(std::string_view& text, std::string_view /*wordsBehind*/, bool& flag) {
    flag = Skip(text, "1") || Skip(text, "true");
    return flag || Skip(text, "0") || Skip(text, "false");
}

template <typename Number>
bool Take(std::string_view& text, std::string_view /*wordsBehind*/, Number& number) {
    return TakeNumber(text, number);
}

// A name goes to the last `wordsBehind` in the text: they may stand in the name as well.
bool Take(std::string_view& text, std::string_view wordsBehind, std::string_view& name) {
    size_t end = wordsBehind.empty() ? text.size() : text.find(wordsBehind);
    for (size_t next = end; next < text.size(); next = text.find(wordsBehind, end + 1)) {
        end = next;
    }
    name = text.substr(0, end);
    text.remove_prefix(name.size());
    return end != std::string_view::npos;
}

bool Matches(const Parts& parts, std::string_view text, Message& message) {
    for (size_t i = 0;; ++i) {
        const auto& [words, target] = parts[i];
        if (text.starts_with(words)) {
            text.remove_prefix(words.size());
        } else if (text == words.substr(0, words.find_last_not_of(' ') + 1)) {
            text = {};
        } else {
            return false;
        }
        const auto take = [&, behind = target.index() == 0 ? "" : parts[i + 1].words](auto field) {
            if constexpr (std::is_same_v<decltype(field), std::monostate>) {
                return false;
            } else {
                return Take(text, behind, message.*field);
            }
        };
        if (target.index() == 0 || !std::visit(take, target)) {
            return target.index() == 0 && text.empty();
        }
    }
}

}  // namespace

std::span<const MessageForm> MessageForms() {
    return FORMS;
}

const char* RefusalOf(MessageKind kind) {
    return std::find_if(std::begin(FORMS), std::end(FORMS),
                        [kind](const MessageForm& form) { return form.kind == kind; })
        ->refusal;
}

std::optional<Message> ParseMessage(std::string_view tag, std::string_view text) {
    // "file line:function() "
    Message message;
    std::string_view rest = text.substr(std::min(text.find(' '), text.size()));
    if (!text.starts_with(LIBRARY_FILE) || !Skip(rest, " ") ||
        !TakeNumber(rest, message.sourceLine) || !Skip(rest, ":")) {
        return {};
    }
    const std::string_view function = rest.substr(0, rest.find('('));
    rest.remove_prefix(function.size());
    if (!Skip(rest, "()") || (!Skip(rest, " ") && !rest.empty())) {
        return {};
    }
    for (size_t i = 0; i < CUT_UP_FORMS.size(); ++i) {
        const MessageForm& form = FORMS[i];
        if (form.function.size() == function.size() && function.starts_with(form.function) &&
            (form.tag.data() == tag.data() || form.tag == tag) &&
            Matches(CUT_UP_FORMS[i], rest, message)) {
            message.kind = form.kind;
            return message;
        }
    }
    return {};
}

}  // namespace tools
