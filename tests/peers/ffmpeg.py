"""A stream of moving pictures made by ffmpeg and served over HTTP."""
import os
import unittest

from peers import PeerTest, free_port, process, watch


class Ffmpeg(PeerTest):
    def test_watch_and_save(self):
        port = free_port()
        source = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi", "-i",
                  "testsrc=size=320x240:rate=10", "-f", "mpjpeg", "-content_type",
                  "multipart/x-mixed-replace;boundary=ffmpeg", "-listen", "1", f"http://127.0.0.1:{port}/live"]
        saved = os.path.join(self.folder, "saved")
        with process(source):
            pictures, interruptions, code, text = watch([f"http://127.0.0.1:{port}/live"], 6, "--save", saved)
        self.assertGreaterEqual(pictures, 20, text)
        self.assertEqual((interruptions, code), (0, 0), text)
        files = sorted(os.listdir(saved))
        self.assertEqual(len(files), pictures)
        contents = set()
        for name in files:
            with open(os.path.join(saved, name), "rb") as file:
                content = file.read()
            self.assertTrue(content.startswith(b"\xff\xd8") and content.rstrip(b"\r\n").endswith(b"\xff\xd9"), name)
            contents.add(content)
        self.assertGreater(len(contents), pictures // 2, "the pictures move")


if __name__ == "__main__":
    unittest.main()
