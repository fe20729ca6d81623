// The library's log messages: what each says, read back from its text.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "tools/base/finding.h"

namespace tools {

// Which statement of the library a message comes from.
enum class MessageKind : uint8_t {
    // Configuration, written when the library is loaded.
    DumpSwitch,
    DumpModes,
    DumpStage,
    // Scenes and threads.
    NoVideo,  // A scene is described as no video. Precedes what the description leads to.
    Video,    // A scene is described as video. Follows what the description leads to.
    SceneDisabled,
    SceneStart,
    SceneEnd,
    AddPersistTid,
    SetTid,
    RemoveTid,
    DumpInfo,
    // Events that the service is told of, and node ends whatever comes of them.
    NodeEnd,
    StageStart,
    StageEnd,
    FrameStart,
    FrameEnd,
    // The tracker's answers to a frame start, a frame end and a stage event.
    FrameAdded,
    FrameAlreadyExists,
    FrameNotContinuous,
    TableFull,
    EndedFrameNotExist,
    FrameNotExist,
    FrameRemoved,
    FrameInError,
    StageNotInRange,
    StageOutOfOrder,
    StageOutOfTurn,
};

// A message. Fields that its kind does not have keep their defaults.
struct Message {
    MessageKind kind = MessageKind::NodeEnd;
    bool flag = false;       // Enabled, started, in error, the master camera's.
    int32_t sourceLine = 0;  // Of the statement. May change from build to build.
    int32_t stage = -1;
    int32_t otherStage = -1;  // The stage that `stage` is out of order with.
    int32_t count = 0;        // Of stages, tracked frames or persistent threads.
    int32_t limit = 0;        // Of tracked frames.
    int32_t port = 0;
    int32_t camera = 0;
    int32_t width = 0;
    int32_t fps = 0;
    int32_t acceptedFps = 0;
    int32_t scene = 0;
    int32_t tid = 0;
    int64_t frame = 0;
    int64_t lastFrame = 0;    // The newest frame, which `frame` does not follow.
    std::string_view name{};  // Of a node or a thread manager. Part of the text that was read.
    std::string_view list{};  // Of modes or ports, as dumped.
    Place place{};            // For whoever reads a file to fill in.
};

// How a kind of message reads: after "file line:function() " comes `text`, in which "{field}"
// stands for the value of that field of Message.
struct MessageForm {
    MessageKind kind;
    std::string_view function;
    std::string_view text;
    const char* refusal = nullptr;  // As RefusalOf says.
};

// All of them. A kind may have several.
std::span<const MessageForm> MessageForms();

// What a message says of the frame or stage event that left it: why the library refused the event,
// or "" where it was forwarded. Null for messages that say neither.
const char* RefusalOf(MessageKind kind);
// Why the library makes room for a frame.
inline constexpr char TABLE_FULL[] = "too many frames in flight";

// The log tags of the library's two units.
inline constexpr std::string_view FACADE_TAG = "cameraframeboost";
inline constexpr std::string_view UTILS_TAG = "tarvocameraframeboostutils";
// The stem of its files' names, with which every message begins.
inline constexpr std::string_view LIBRARY_FILE = "tarvocameraframeboost";

// Reads a message, which the result points into. Blanks at the end may be missing. Nothing for what
// the library does not write.
std::optional<Message> ParseMessage(std::string_view text);

}  // namespace tools
