// GStreamer's side of the RTSP rows: a pipeline for each session, without the wait of its jitter buffer.
#include "RtspSessions.h"

#include <gst/gst.h>

using namespace bench;

namespace
{
RtspRow* theRow = nullptr;

void handOff(GstElement*, GstBuffer*, GstPad*, gpointer session) { theRow->took(GPOINTER_TO_INT(session)); }

bool open(const Arguments& a, int number)
{
    const std::string text = "rtspsrc latency=0 location=" + rtspUrl(a)
        + " protocols=" + (isUdp(a) ? "udp" : "tcp")
        + " timeout=0 ! fakesink name=sink sync=false async=false signal-handoffs=true";
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(text.c_str(), &error);
    if (pipeline == nullptr || error != nullptr)
        return false;
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(handOff), GINT_TO_POINTER(number));
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    for (;;) { // until the server has agreed to PLAY
        GstMessage* message = gst_bus_timed_pop_filtered(
            bus, 10 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_PROGRESS | GST_MESSAGE_ERROR));
        if (message == nullptr || GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
            return false;
        GstProgressType type{};
        gchar* code = nullptr;
        gst_message_parse_progress(message, &type, &code, nullptr);
        const bool bPlaying = type == GST_PROGRESS_TYPE_COMPLETE && std::strcmp(code, "request") == 0;
        g_free(code);
        gst_message_unref(message);
        if (bPlaying)
            return true;
    }
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    gst_init(&argc, &argv);
    RtspRow row(a);
    theRow = &row;
    int sessions = 0;
    do {
        if (!open(a, sessions))
            return 1;
    } while (row.playing(++sessions));
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
