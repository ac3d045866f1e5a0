/*
 * Plays one file with automatically chosen outputs and prints the player's
 * events until the end: the smallest complete use of the player API.
 *
 *   play_file <file or URL> [audio driver] [video driver]
 */
#include <stdio.h>
#include <unistd.h>

#include <travik/travik.h>

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s <file> [audio driver] [video driver]\n", argv[0]);
    return 2;
  }
  travik_init();

  /* The player writes its events into a pipe the application reads. */
  int fds[2];
  if (pipe(fds) != 0) return 1;
  travik_player_description desc;
  travik_player_description_init(&desc);
  desc.audio_driver = argc > 2 ? argv[2] : "auto";
  desc.video_driver = argc > 3 ? argv[3] : "auto";
  desc.event_read_fd = fds[0];
  desc.event_write_fd = fds[1];
  desc.input_limit = 1 << 20; /* hold at most 1 MB of demuxed data */

  travik_player *player = travik_player_create(&desc);
  if (!player) return 1;
  int status = 1;
  if (travik_player_open(player, argv[1]) == 0) {
    travik_player_play(player);
    int ended = 0;
    while (!ended) {
      travik_player_event event;
      while (travik_player_getevent(player, &event) == 0) {
        if (event.code == TRAVIK_EVENT_BUFFERING) {
          printf("buffering %d%%\n", event.data[0]);
        } else if (event.code == TRAVIK_EVENT_END) {
          printf("end at %d ms\n", (int)travik_player_elapsed(player));
          ended = 1;
        } else {
          printf("event %d\n", event.code);
        }
      }
      usleep(20000); /* getevent never blocks: poll, or select() on fds[0] */
    }
    travik_player_close(player);
    status = 0;
  }
  travik_player_destroy(player);
  close(fds[0]);
  close(fds[1]);
  travik_destroy();
  return status;
}
