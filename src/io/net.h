// The network back-ends of the I/O handles (tcp, udp, vpn).
#pragma once

#include <travik/io.h>

namespace travik::io {

int32_t tcp_open(travik_io *io, int32_t flags);
int32_t tcp_read(travik_io *io, void *buffer, int32_t count);
int32_t tcp_write(travik_io *io, const void *buffer, int32_t count);
int32_t tcp_close(travik_io *io);
int32_t tcp_handle(travik_io *io);

int32_t udp_open(travik_io *io, int32_t flags);
int32_t udp_read(travik_io *io, void *buffer, int32_t count);
int32_t udp_write(travik_io *io, const void *buffer, int32_t count);
int32_t udp_close(travik_io *io);
int32_t udp_handle(travik_io *io);

int32_t vpn_open(travik_io *io, int32_t flags);
int32_t vpn_write(travik_io *io, const void *buffer, int32_t count);
int32_t vpn_close(travik_io *io);
int32_t vpn_handle(travik_io *io);

}  // namespace travik::io
