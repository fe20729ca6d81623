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
    {StageStart, "TcfbtNotifyStageStart",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}", ""},
    {StageEnd, "TcfbtNotifyStageEnd",
     "halFrameNumber = {frame}, stage = {stage}, nodeName = {name}", ""},
    {NodeEnd, "TcfbtNotifyNodeEnd",
     "halFrameNumber = {frame}, nodeName = {name}, stage = {stage}, maxStageCnt = {count}, "
     "portId = {port}, currentCameraId = {camera}, isMaterCamera = {flag}"},
    {FrameStart, "TcfbtNotifyFrameStart", "halFrameNumber = {frame}", ""},
    {FrameEnd, "TcfbtNotifyFrameEnd", "halFrameNumber = {frame}", ""},
    {FrameAdded, "CheckIfCouldStartFrame", "new frame added, is error = {flag}"},
    {FrameAlreadyExists, "CheckIfCouldStartFrame", "frameNumber: {frame} already exists",
     "already in flight"},
    {FrameNotContinuous, "CheckIfCouldStartFrame",
     "frameNumber continuity check fail, lastFrameNumber: {lastFrame}, "
     "current frameNumber: {frame}",
     "does not follow the newest frame"},
    {TableFull, "CheckIfCouldStartFrame",
     "current frameData size({count}) > MAX_FRAME_TRACKED({limit}), mark and notify frame error"},
    {EndedFrameNotExist, "CheckIfCouldEndFrame", "frameNumber: {frame} not exist", "not in flight"},
    {FrameNotExist, "CheckFrameStatus", "frameNumber not exist, frameNumber = {frame}",
     "the frame is not in flight"},
    {FrameInError, "CheckFrameStatus", "is error frame, notify frame error, frameNumber = {frame}",
     "the frame is in error"},
    {FrameRemoved, "CheckFrameStatus", "remove frame, frameNumber = {frame}",
     "the frame is not in flight"},
    {FrameNotExist, "CheckStagesStatus", "frameNumber not exist, frameNumber = {frame}",
     "the frame is not in flight"},
    {StageNotInRange, "CheckStagesStatus",
     "stage error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "stageCount = {count}",
     "no such stage"},
    {StageOutOfOrder, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}, "
     "error stage = {otherStage}",
     "out of order with another stage"},
    {StageOutOfTurn, "CheckStagesStatus",
     "stage status check error, notify frame error, frameNumber = {frame}, stage = {stage}",
     "the stage has run already, or has not started"},
    {NoVideo, "TcfbtSetSceneInfo",
     "isVideo ={flag}, resolution = {width}, fps = {fps}, mFps = {acceptedFps}, "
     "cfbtScene = {scene}"},
    {Video, "TcfbtSetSceneInfo",
     "resolution = {width}, fps = {fps}, mFps = {acceptedFps}, cfbtScene = {scene}"},
    {SceneDisabled, "TcfbtNotifySceneStart", "cameraframeboost disabled"},
    {SceneStart, "TcfbtNotifySceneStart", "isSceneStarted = {truth}"},
    {SceneEnd, "TcfbtNotifySceneEnd", ""},
    {SetTid, "TcfbtSetTids", "tid = {tid} "},
    {RemoveTid, "TcfbtRemoveTids", "tid = {tid}"},
    {AddPersistTid, "TcfbtAddPersistTids", "name = {name}, tid = {tid} "},
    {DumpInfo, "DumpInfo", "DumpInfo PersistTids size = {count}"},
    {DumpSwitch, "DumpConfig", "frameboost enable = {flag}"},
    {DumpModes, "DumpConfig", "supportOperationModeList = {list}"},
    {DumpStage, "DumpConfig", "stage = {stage}, nodename = {name}, nodeport = {list}"},
};

// Where the value of a field goes.
using Field = std::variant<bool Message::*, int32_t Message::*, int64_t Message::*,
                           std::string_view Message::*>;
constexpr std::pair<std::string_view, Field> FIELDS[] = {
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

// The fields in the text of each form, in their order. One that is not known does not compile.
constexpr auto FIELDS_OF_FORMS = [] {
    std::array<std::array<Field, 7>, std::size(FORMS)> all{};
    for (size_t i = 0; i < all.size(); ++i) {
        std::string_view text = FORMS[i].text;
        for (size_t next = 0; text.find('{') != std::string_view::npos; ++next) {
            text.remove_prefix(text.find('{') + 1);
            const auto isNamed = [name = text.substr(0, text.find('}'))](const auto& field) {
                return field.first == name;
            };
            all[i][next] = std::find_if(std::begin(FIELDS), std::end(FIELDS), isNamed)->second;
        }
    }
    return all;
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

// A name goes to the words behind it.
bool Take(std::string_view& text, std::string_view wordsBehind, std::string_view& name) {
    const size_t end = wordsBehind.empty() ? text.size() : text.find(wordsBehind);
    name = text.substr(0, end);
    text.remove_prefix(name.size());
    return end != std::string_view::npos;
}

// Takes the words off; blanks that end them may be missing at the end of the text.
bool SkipWords(std::string_view& text, std::string_view words) {
    return Skip(text, words) ||
           (text == words.substr(0, words.find_last_not_of(' ') + 1) && Skip(text, text));
}

bool Matches(std::string_view form, const Field* field, std::string_view text, Message& message) {
    for (size_t open = 0; (open = form.find('{')) != std::string_view::npos; ++field) {
        if (!SkipWords(text, form.substr(0, open))) {
            return false;
        }
        form.remove_prefix(form.find('}', open) + 1);
        const std::string_view behind = form.substr(0, form.find('{'));
        if (!std::visit([&](auto member) { return Take(text, behind, message.*member); }, *field)) {
            return false;
        }
    }
    return SkipWords(text, form) && text.empty();
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

std::optional<Message> ParseMessage(std::string_view text) {
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
    for (size_t i = 0; i < std::size(FORMS); ++i) {
        const MessageForm& form = FORMS[i];
        if (form.function == function &&
            Matches(form.text, FIELDS_OF_FORMS[i].data(), rest, message)) {
            message.kind = form.kind;
            return message;
        }
    }
    return {};
}

}  // namespace tools
