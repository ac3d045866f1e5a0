// The SDL video output in a real window: an Xvfb server is started for the
// test, a picture is drawn and flipped, and a screenshot of the screen is
// compared with the expected picture (and saved as a PNG to look at).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <travik/video.h>
#include <travik/yuv2rgb.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "util/testutil.h"

#ifdef TRAVIK_TEST_HAVE_X11
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <png.h>
#endif

namespace {

const int kPluginsDir = [] {
  setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
  return 0;
}();

// Four quadrants: red, green / blue, white (studio-range YUV).
const uint8_t kColours[4][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}, {235, 128, 128}};

struct Picture {
  travik_videoframe frame;
  std::vector<uint8_t> y, u, v;
  Picture(int w, int h) : y(w * h), u(w * h / 4), v(w * h / 4) {
    travik_videoframe_init(&frame, nullptr);
    frame.format = TRAVIK_PIXEL_YUV420P;
    frame.width = w;
    frame.height = h;
    for (int r = 0; r < h; r++)
      for (int x = 0; x < w; x++) {
        const int q = (r >= h / 2) * 2 + (x >= w / 2);
        y[r * w + x] = kColours[q][0];
        u[(r / 2) * (w / 2) + x / 2] = kColours[q][1];
        v[(r / 2) * (w / 2) + x / 2] = kColours[q][2];
      }
    frame.planes[0] = y.data(), frame.planes[1] = u.data(), frame.planes[2] = v.data();
    frame.pitches[0] = w, frame.pitches[1] = frame.pitches[2] = w / 2;
  }
};

#ifdef TRAVIK_TEST_HAVE_X11
// The converter's RGB for a quadrant's colour.
uint32_t expected(int q) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  uint8_t y[16], u[8], v[8];
  std::memset(y, kColours[q][0], sizeof y);
  std::memset(u, kColours[q][1], sizeof u);
  std::memset(v, kColours[q][2], sizeof v);
  uint32_t out[16];
  travik_yuv2rgb_convert(c, 8, 2, reinterpret_cast<uint8_t *>(out), 32, y, u, v, 8, 4);
  travik_yuv2rgb_destroy(c);
  return out[0];
}

bool close_to(uint32_t a, uint32_t b, int tolerance) {
  for (int shift = 0; shift < 24; shift += 8) {
    const int d = static_cast<int>((a >> shift) & 0xFF) - static_cast<int>((b >> shift) & 0xFF);
    if (d > tolerance || d < -tolerance) return false;
  }
  return true;
}

// An X server of its own for the test; skipped() tells why there is none.
class Server {
 public:
  Server() {
    const char *binary = "/usr/bin/Xvfb";
    if (access(binary, X_OK) != 0) {
      why_ = "Xvfb is not installed";
      return;
    }
    for (int n = 60 + getpid() % 200, tries = 0; tries < 20; n++, tries++) {
      const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
      const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
      if (access(lock.c_str(), F_OK) == 0 || access(socket.c_str(), F_OK) == 0) continue;
      display_ = ":" + std::to_string(n);
      socket_ = socket;
      break;
    }
    if (display_.empty()) {
      why_ = "no free X display number";
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      if (null >= 0) {
        dup2(null, 1);
        dup2(null, 2);
      }
      execl(binary, "Xvfb", display_.c_str(), "-screen", "0", "320x240x24", "-nolisten", "tcp",
            static_cast<char *>(nullptr));
      _exit(127);
    }
    // Up to 10 s for the server to accept connections.
    for (int i = 0; i < 200; i++) {
      if (Display *d = XOpenDisplay(display_.c_str())) {
        XCloseDisplay(d);
        return;
      }
      int status;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        why_ = "Xvfb exited at start";
        return;
      }
      usleep(50000);
    }
    why_ = "Xvfb did not accept connections within 10 s";
  }
  ~Server() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  const std::string &why() const { return why_; }
  const std::string &display() const { return display_; }

 private:
  pid_t pid_ = -1;
  std::string display_, socket_, why_;
};

// The screen as 0xRRGGBB words, row by row; saved as a PNG too.
std::vector<uint32_t> screenshot(const std::string &display, const std::string &png) {
  std::vector<uint32_t> pixels;
  Display *d = XOpenDisplay(display.c_str());
  if (!d) return pixels;
  XImage *image = XGetImage(d, DefaultRootWindow(d), 0, 0, 320, 240, AllPlanes, ZPixmap);
  if (image) {
    std::vector<uint8_t> rgb;
    for (int y = 0; y < 240; y++)
      for (int x = 0; x < 320; x++) {
        const uint32_t p = static_cast<uint32_t>(XGetPixel(image, x, y)) & 0xFFFFFF;
        pixels.push_back(p);
        rgb.push_back(p >> 16), rgb.push_back((p >> 8) & 0xFF), rgb.push_back(p & 0xFF);
      }
    XDestroyImage(image);
    png_image out;
    std::memset(&out, 0, sizeof out);
    out.version = PNG_IMAGE_VERSION;
    out.width = 320;
    out.height = 240;
    out.format = PNG_FORMAT_RGB;
    png_image_write_to_file(&out, png.c_str(), 0, rgb.data(), 0, nullptr);
  }
  XCloseDisplay(d);
  return pixels;
}

// Draws `picture` in a 320 x 240 window and returns the screenshot's pixels
// at the given points as text.
std::string show(const Server &server, int w, int h, const std::vector<std::pair<int, int>> &at,
                 const std::string &png) {
  return travik_test::in_child([&] {
    setenv("DISPLAY", server.display().c_str(), 1);
    travik_video *v = travik_video_create("sdl", const_cast<char *>("size=320x240,software"));
    if (!v) return std::string("create failed");
    Picture picture(w, h);
    travik_video_init(v, w, h, 1);
    // A few frames, so that the server has certainly mapped the window.
    for (int i = 0; i < 5; i++) {
      travik_video_draw(v, 0, 0, -1, -1, &picture.frame);
      travik_video_flip(v);
      usleep(40000);
    }
    std::vector<uint32_t> pixels = screenshot(server.display(), png);
    int32_t flips = 0;
    travik_video_control(v, TRAVIK_VIDEO_CONTROL_FLIPS, &flips);
    travik_video_destroy(v);
    if (pixels.size() != 320u * 240u) return std::string("no screenshot");
    std::ostringstream text;
    text << "flips " << flips;
    for (auto [x, y] : at) text << " " << std::hex << pixels[y * 320 + x];
    return text.str();
  });
}

std::vector<uint32_t> parse(const std::string &text, int *flips) {
  std::istringstream in(text);
  std::string word;
  in >> word >> *flips;
  std::vector<uint32_t> values;
  uint32_t value;
  while (in >> std::hex >> value) values.push_back(value);
  return values;
}

TEST(VideoOutSdl, WindowShowsThePicture) {
  Server server;
  if (!server.why().empty()) GTEST_SKIP() << "no X server: " << server.why();
  const std::string png = TRAVIK_TEST_BINARY_DIR "/videoout-sdl-screenshot.png";
  const std::string result =
      show(server, 160, 120, {{80, 60}, {240, 60}, {80, 180}, {240, 180}}, png);
  int flips = 0;
  std::vector<uint32_t> got = parse(result, &flips);
  ASSERT_EQ(got.size(), 4u) << result;
  EXPECT_EQ(flips, 5);
  for (int q = 0; q < 4; q++)
    EXPECT_TRUE(close_to(got[q], expected(q), 12))
        << "quadrant " << q << ": " << std::hex << got[q] << " expected " << expected(q);
}

TEST(VideoOutSdl, WiderPictureKeepsItsAspect) {
  Server server;
  if (!server.why().empty()) GTEST_SKIP() << "no X server: " << server.why();
  const std::string png = TRAVIK_TEST_BINARY_DIR "/videoout-sdl-letterbox.png";
  // 160 x 60 fills 320 x 120, rows 60 to 179, black above and below.
  const std::string result = show(server, 160, 60, {{160, 20}, {80, 90}, {240, 150}, {160, 220}}, png);
  int flips = 0;
  std::vector<uint32_t> got = parse(result, &flips);
  ASSERT_EQ(got.size(), 4u) << result;
  EXPECT_EQ(got[0], 0u);
  EXPECT_TRUE(close_to(got[1], expected(0), 12)) << std::hex << got[1];
  EXPECT_TRUE(close_to(got[2], expected(3), 12)) << std::hex << got[2];
  EXPECT_EQ(got[3], 0u);
}
#else
TEST(VideoOutSdl, WindowShowsThePicture) { GTEST_SKIP() << "built without X11 headers"; }
#endif

TEST(VideoOutSdl, NoDisplayMeansNoDriver) {
  const std::string result = travik_test::in_child([] {
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    setenv("SDL_VIDEODRIVER", "x11", 1);
    travik_video *v = travik_video_create("sdl", nullptr);
    std::string seen = v ? "created" : "null";
    if (v) travik_video_destroy(v);
    return seen;
  });
  EXPECT_EQ(result, "null");
}

}  // namespace
