// Changes a file in one step that other processes wait for; it is replaced whole or not at all.
#include <fcntl.h>
#include <sys/file.h>

#include <glib.h>

int main() {
    const int lock = open("settings.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (lock == -1 || flock(lock, LOCK_EX) != 0) return 1;
    g_autofree gchar* old = nullptr;
    g_file_get_contents("settings", &old, nullptr, nullptr);
    g_autofree gchar* bytes = g_strconcat(old != nullptr ? old : "", "volume=7\n", nullptr);
    if (!g_file_set_contents_full("settings", bytes, -1, G_FILE_SET_CONTENTS_DURABLE, 0666,
                                  nullptr)) {
        return 1;
    }
    g_print("%s", bytes);
}
