#include "tools/log/message.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
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

// Of the statements some write 1 and 0, some true and false.
bool TakeFlag(std::string_view& text, bool& flag) {
    for (const std::string_view word : {"1", "0", "true", "false"}) {
        if (Skip(text, word)) {
            flag = word == "1" || word == "true";
            return true;
        }
    }
    return false;
}

// Takes what stands before the last `words` in the text: they may stand in a name as well.
bool TakeText(std::string_view& text, std::string_view words, std::string_view& value) {
    size_t end = words.empty() ? text.size() : text.find(words);
    for (size_t next = end; next < text.size(); next = text.find(words, end + 1)) {
        end = next;
    }
    if (end == std::string_view::npos) {
        return false;
    }
    value = text.substr(0, end);
    text.remove_prefix(end);
    return true;
}

bool TakeField(std::string_view& text, const Target& target, std::string_view wordsBehind,
               Message& message) {
    if (const auto* number = std::get_if<int32_t Message::*>(&target)) {
        return TakeNumber(text, message.**number);
    }
    if (const auto* number = std::get_if<int64_t Message::*>(&target)) {
        return TakeNumber(text, message.**number);
    }
    if (const auto* part = std::get_if<std::string_view Message::*>(&target)) {
        return TakeText(text, wordsBehind, message.**part);
    }
    return TakeFlag(text, message.*std::get<bool Message::*>(target));
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
        if (target.index() == 0) {
            return text.empty();
        }
        if (!TakeField(text, target, parts[i + 1].words, message)) {
            return false;
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
    const size_t blank = text.starts_with(LIBRARY_FILE) ? text.find(' ', LIBRARY_FILE.size())
                                                        : std::string_view::npos;
    if (blank == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(blank + 1);
    Message message;
    if (!TakeNumber(text, message.sourceLine) || !text.starts_with(':')) {
        return {};
    }
    const size_t end = text.find('(');
    if (end == std::string_view::npos || !text.substr(end).starts_with("()")) {
        return {};
    }
    const std::string_view function = text.substr(1, end - 1);
    text.remove_prefix(end + 2);
    if (!Skip(text, " ") && !text.empty()) {
        return {};
    }
    for (size_t i = 0; i < CUT_UP_FORMS.size(); ++i) {
        const MessageForm& form = FORMS[i];
        if (form.function.size() == function.size() && function.starts_with(form.function) &&
            (form.tag.data() == tag.data() || form.tag == tag) &&
            Matches(CUT_UP_FORMS[i], text, message)) {
            message.kind = form.kind;
            return message;
        }
    }
    return {};
}

}  // namespace tools
