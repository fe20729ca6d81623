#include "tools/log/message.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/base/cursor.h"

namespace tools {
namespace {

// The forms, those that a frame leaves most often first: they are tried in this order.
constexpr MessageForm FORMS[] = {
    {MessageKind::StageStart, FACADE_TAG, "TcfbtNotifyStageStart",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}"},
    {MessageKind::StageEnd, FACADE_TAG, "TcfbtNotifyStageEnd",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}"},
    {MessageKind::NodeEnd, FACADE_TAG, "TcfbtNotifyNodeEnd",
     "halFrameNumber = {frame}, nodeName = {name}, stage = {stage}, maxStageCnt = {count}, "
     "portId = {port}, currentCameraId = {camera}, isMaterCamera = {flag}"},
    {MessageKind::FrameStart, FACADE_TAG, "TcfbtNotifyFrameStart", "halFrameNumber = {frame}"},
    {MessageKind::FrameEnd, FACADE_TAG, "TcfbtNotifyFrameEnd", "halFrameNumber = {frame}"},
    {MessageKind::FrameAdded, UTILS_TAG, "CheckIfCouldStartFrame",
     "new frame added, is error = {flag}"},
    {MessageKind::FrameAlreadyExists, UTILS_TAG, "CheckIfCouldStartFrame",
     "frameNumber: {frame} already exists"},
    {MessageKind::FrameNotContinuous, UTILS_TAG, "CheckIfCouldStartFrame",
     "frameNumber continuity check fail, lastFrameNumber: {lastFrame}, "
     "current frameNumber: {frame}"},
    {MessageKind::TableFull, UTILS_TAG, "CheckIfCouldStartFrame",
     "current frameData size({count}) > MAX_FRAME_TRACKED({limit}), mark and notify frame error"},
    {MessageKind::EndedFrameNotExist, UTILS_TAG, "CheckIfCouldEndFrame",
     "frameNumber: {frame} not exist"},
    {MessageKind::FrameNotExist, UTILS_TAG, "CheckFrameStatus",
     "frameNumber not exist, frameNumber = {frame}"},
    {MessageKind::FrameInError, UTILS_TAG, "CheckFrameStatus",
     "is error frame, notify frame error, frameNumber = {frame}"},
    {MessageKind::FrameRemoved, UTILS_TAG, "CheckFrameStatus",
     "remove frame, frameNumber = {frame}"},
    {MessageKind::FrameNotExist, UTILS_TAG, "CheckStagesStatus",
     "frameNumber not exist, frameNumber = {frame}"},
    {MessageKind::StageNotInRange, UTILS_TAG, "CheckStagesStatus",
     "stage error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "stageCount = {count}"},
    {MessageKind::StageOutOfOrder, UTILS_TAG, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "error stage = {otherStage}"},
    {MessageKind::StageOutOfTurn, UTILS_TAG, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}"},
    {MessageKind::NoVideo, FACADE_TAG, "TcfbtSetSceneInfo",
     "isVideo ={flag}, resolution = {width}, fps = {fps}, mFps = {acceptedFps}, "
     "cfbtScene = {scene}"},
    {MessageKind::Video, FACADE_TAG, "TcfbtSetSceneInfo",
     "resolution = {width}, fps = {fps}, mFps = {acceptedFps}, cfbtScene = {scene}"},
    {MessageKind::SceneDisabled, FACADE_TAG, "TcfbtNotifySceneStart", "cameraframeboost disabled"},
    {MessageKind::SceneStart, FACADE_TAG, "TcfbtNotifySceneStart", "isSceneStarted = {truth}"},
    {MessageKind::SceneEnd, FACADE_TAG, "TcfbtNotifySceneEnd", ""},
    {MessageKind::SetTid, FACADE_TAG, "TcfbtSetTids", "tid = {tid} "},
    {MessageKind::RemoveTid, FACADE_TAG, "TcfbtRemoveTids", "tid = {tid}"},
    {MessageKind::AddPersistTid, FACADE_TAG, "TcfbtAddPersistTids", "name = {name}, tid = {tid} "},
    {MessageKind::DumpInfo, FACADE_TAG, "DumpInfo", "DumpInfo PersistTids size = {count}"},
    {MessageKind::DumpSwitch, UTILS_TAG, "DumpConfig", "frameboost enable = {flag}"},
    {MessageKind::DumpModes, UTILS_TAG, "DumpConfig", "supportOperationModeList = {list}"},
    {MessageKind::DumpStage, UTILS_TAG, "DumpConfig",
     "stage = {stage}, nodename = {name}, nodeport = {list}"},
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
    size_t end = text.size();
    if (!words.empty()) {
        end = text.find(words);
        if (end == std::string_view::npos) {
            return false;
        }
        for (size_t next = end; next != std::string_view::npos; next = text.find(words, end + 1)) {
            end = next;
        }
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

std::string_view WithoutBlanksBehind(std::string_view text) {
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// Whether the text begins with the words. They are short, and there are several in each message:
// calling memcmp for each took a tenth of all the time that reading a capture takes.
bool BeginsWith(std::string_view text, std::string_view words) {
    if (text.size() < words.size()) {
        return false;
    }
    const char* one = text.data();
    const char* other = words.data();
    size_t left = words.size();
    for (; left >= sizeof(uint64_t); left -= sizeof(uint64_t)) {
        uint64_t ofOne = 0;
        uint64_t ofOther = 0;
        std::memcpy(&ofOne, one, sizeof(ofOne));
        std::memcpy(&ofOther, other, sizeof(ofOther));
        if (ofOne != ofOther) {
            return false;
        }
        one += sizeof(uint64_t);
        other += sizeof(uint64_t);
    }
    for (; left > 0 && *one == *other; --left) {
        ++one;
        ++other;
    }
    return left == 0;
}

bool Matches(const Parts& parts, std::string_view text, Message& message) {
    for (size_t i = 0;; ++i) {
        const auto& [words, target] = parts[i];
        if (BeginsWith(text, words)) {
            text.remove_prefix(words.size());
        } else if (text == WithoutBlanksBehind(words)) {
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
    switch (kind) {
        case MessageKind::FrameStart:
        case MessageKind::FrameEnd:
        case MessageKind::StageStart:
        case MessageKind::StageEnd:
            return "";
        case MessageKind::FrameAlreadyExists:
            return "already in flight";
        case MessageKind::FrameNotContinuous:
            return "does not follow the newest frame";
        case MessageKind::EndedFrameNotExist:
            return "not in flight";
        case MessageKind::FrameNotExist:
        case MessageKind::FrameRemoved:
            return "the frame is not in flight";
        case MessageKind::FrameInError:
            return "the frame is in error";
        case MessageKind::StageNotInRange:
            return "no such stage";
        case MessageKind::StageOutOfOrder:
            return "out of order with another stage";
        case MessageKind::StageOutOfTurn:
            return "the stage has run already, or has not started";
        default:
            return nullptr;
    }
}

bool IsLibraryText(std::string_view text) {
    return BeginsWith(text, LIBRARY_FILE);
}

std::optional<Message> ParseMessage(std::string_view tag, std::string_view text) {
    // "file line:function() "
    const size_t blank =
        IsLibraryText(text) ? text.find(' ', LIBRARY_FILE.size()) : std::string_view::npos;
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
        if (form.function.size() == function.size() && BeginsWith(function, form.function) &&
            (form.tag.data() == tag.data() || form.tag == tag) &&
            Matches(CUT_UP_FORMS[i], text, message)) {
            message.kind = form.kind;
            return message;
        }
    }
    return {};
}

}  // namespace tools
