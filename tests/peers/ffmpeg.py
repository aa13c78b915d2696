"""A stream of moving pictures made by ffmpeg and served over HTTP."""
import pathlib
import unittest

from peers import PeerTest, free_port, process


class Ffmpeg(PeerTest):
    def test_watch_and_save(self):
        url = f"http://127.0.0.1:{free_port()}/live"
        source = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10",
                  "-f", "mpjpeg", "-content_type", "multipart/x-mixed-replace;boundary=ffmpeg", "-listen", "1", url]
        with process(source):
            pictures = self.check_watch(20, 6, url, "--save", self.path("saved"))
        contents = [path.read_bytes() for path in pathlib.Path(self.path("saved")).iterdir()]
        self.assertEqual(len(contents), pictures)
        for content in contents:
            self.assertTrue(content.startswith(b"\xff\xd8") and content.rstrip(b"\r\n").endswith(b"\xff\xd9"))
        self.assertGreater(len(set(contents)), pictures // 2, "the pictures move")


if __name__ == "__main__":
    unittest.main()
