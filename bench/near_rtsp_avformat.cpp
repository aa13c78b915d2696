// libavformat's side of the RTSP rows: a thread for each session.
#include "RtspSessions.h"

extern "C" {
#include <libavformat/avformat.h>
}

using namespace bench;

namespace
{
AVFormatContext* open(const Arguments& a)
{
    AVFormatContext* context = nullptr;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rtsp_transport", isUdp(a) ? "udp" : "tcp", 0);
    const int result = avformat_open_input(&context, rtspUrl(a).c_str(), nullptr, &options);
    av_dict_free(&options);
    return result < 0 ? nullptr : context;
}

void play(AVFormatContext* context, RtspRow& row, int session)
{
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        row.took(session);
        av_packet_unref(packet);
    }
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    av_log_set_level(AV_LOG_QUIET); // it says each port that was taken
    avformat_network_init();
    RtspRow row(a);
    int sessions = 0;
    bool bMore = true;
    while (bMore) {
        AVFormatContext* context = open(a);
        if (context == nullptr)
            return 1;
        std::thread([context, &row, sessions] { play(context, row, sessions); }).detach();
        bMore = row.playing(++sessions);
    }
    for (;;)
        pause();
}
