// Writes the calls of session files as bytes, a file each: where the fuzzer of calls starts from.
// Usage: seed_calls FOLDER SESSION...

#include <filesystem>
#include <fstream>

#include "fuzz/call_codec.h"

// NOLINTNEXTLINE(bugprone-exception-escape): a session that cannot be read ends the build.
int main(int count, char** arguments) {
    for (int i = 2; i < count; ++i) {
        const std::filesystem::path path = arguments[i];
        std::ifstream session(path);
        fuzz::Writer writer;
        for (std::string text; std::getline(session, text);) {
            const replay::Line line = replay::ParseLine(text);
            if (const auto* call = std::get_if<replay::Call>(&line)) {
                writer.Call(*call);
            } else if (const auto* recording = std::get_if<replay::Recording>(&line)) {
                // A few frames of it say all there is to say.
                constexpr int32_t ports[] = {3, 1, 8, 0, 10};
                for (int64_t frame = 0; frame < std::min<int64_t>(recording->frames, 8); ++frame) {
                    for (size_t stage = 0; stage < std::size(ports); ++stage) {
                        writer.Call(
                            {replay::FindOperation("TcfbtNotifyNodeEnd"),
                             {frame, std::string(fuzz::TEXTS[stage]), ports[stage], 0, true}});
                    }
                }
            }
        }
        std::ofstream(std::filesystem::path(arguments[1]) / path.stem()) << writer.Bytes();
    }
}
