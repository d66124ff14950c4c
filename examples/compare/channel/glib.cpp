// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>

struct Station {
    guint khz;
    gchar name[9];
};

GSocket* new_socket() {
    return g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_DEFAULT,
                        nullptr);
}

int main() {
    g_autoptr(GSocketAddress) address = g_unix_socket_address_new("stations");
    if (fork() == 0) {
        const Station station = {98500, "Wien"};
        const gchar* bytes = reinterpret_cast<const gchar*>(&station);
        g_autoptr(GSocket) out = new_socket();
        while (g_socket_send_to(out, address, bytes, sizeof station, nullptr, nullptr) == -1) {
            g_usleep(1000);
        }
        _exit(0);
    }
    unlink("stations");
    g_autoptr(GSocket) in = new_socket();
    if (!g_socket_bind(in, address, FALSE, nullptr)) return 1;
    Station station;
    gchar* const bytes = reinterpret_cast<gchar*>(&station);
    if (g_socket_receive(in, bytes, sizeof station, nullptr, nullptr) != sizeof station) return 1;
    g_print("%s on %u kHz\n", station.name, station.khz);
    wait(nullptr);
    unlink("stations");
}
