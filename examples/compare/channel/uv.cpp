// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <uv.h>

struct Station {
    unsigned int khz;
    char name[9];
};

uv_pipe_t server, pipe_end;
uv_connect_t connection;
uv_write_t writing;
Station station = {98500, "Wien"};
size_t received = 0;

void connected(uv_connect_t*, int status) {
    if (status != 0) {
        uv_close(reinterpret_cast<uv_handle_t*>(&pipe_end), [](uv_handle_t*) {
            uv_sleep(1);
            uv_pipe_init(uv_default_loop(), &pipe_end, 0);
            uv_pipe_connect(&connection, &pipe_end, "stations", connected);
        });
        return;
    }
    const uv_buf_t bytes = uv_buf_init(reinterpret_cast<char*>(&station), sizeof station);
    uv_write(&writing, reinterpret_cast<uv_stream_t*>(&pipe_end), &bytes, 1,
             [](uv_write_t*, int) { uv_stop(uv_default_loop()); });
}

void room(uv_handle_t*, size_t, uv_buf_t* bytes) {
    *bytes = uv_buf_init(reinterpret_cast<char*>(&station) + received,
                         static_cast<unsigned int>(sizeof station - received));
}

void read(uv_stream_t*, ssize_t count, const uv_buf_t*) {
    if (count > 0) received += static_cast<size_t>(count);
    if (count < 0 || received == sizeof station) uv_stop(uv_default_loop());
}

int main() {
    const pid_t sender = fork();
    uv_loop_t* loop = uv_default_loop();
    uv_pipe_init(loop, &pipe_end, 0);
    if (sender == 0) {
        uv_pipe_connect(&connection, &pipe_end, "stations", connected);
        return uv_run(loop, UV_RUN_DEFAULT) == 0 ? 1 : 0;
    }
    unlink("stations");
    uv_pipe_init(loop, &server, 0);
    if (uv_pipe_bind(&server, "stations") != 0) return 1;
    uv_listen(reinterpret_cast<uv_stream_t*>(&server), 1, [](uv_stream_t* listening, int) {
        uv_stream_t* in = reinterpret_cast<uv_stream_t*>(&pipe_end);
        if (uv_accept(listening, in) == 0) uv_read_start(in, room, read);
    });
    uv_run(loop, UV_RUN_DEFAULT);
    if (received != sizeof station) return 1;
    std::printf("%s on %u kHz\n", station.name, station.khz);
    wait(nullptr);
    unlink("stations");
}
