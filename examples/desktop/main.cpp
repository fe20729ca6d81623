// Shows the calls that the boost service gets, through the desktop platform of an installed copy. A
// test of a HAL does the same: it records while the HAL works, then looks at the calls.

#include <cameraframeboost/tarvocameraframeboost.h>
#include <host/desktop.h>

#include <cstdio>
#include <variant>

int main() {
    desktop::Recorder recorder;

    TarvoCameraFrameBoost boost;
    boost.TcfbtSetVersion(2);
    boost.TcfbtSetSceneInfo(/*isVideo=*/true, /*resolution=*/3840, /*fps=*/60);
    boost.TcfbtNotifySceneStart(/*operationMode=*/0x8001);
    boost.TcfbtNotifyNodeEnd(/*halFrameNumber=*/0, "SensorFrontEnd0", /*portId=*/3,
                             /*currentCameraId=*/0, /*isMaterCamera=*/true);
    boost.TcfbtNotifySceneEnd();

    for (const desktop::Effect& effect : recorder.Take()) {
        if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event)) {
            std::puts(desktop::ToString(*call).c_str());
        }
    }
}
