// Starts the library under a name, and ends it with the scope.
#include <gio/gio.h>

int main(int argc, char** argv) {
    g_set_prgname("radio");
    g_autoptr(GApplication) app = g_application_new(nullptr, G_APPLICATION_NON_UNIQUE);
    const auto activated = [](GApplication*, gpointer) { g_print("%s runs\n", g_get_prgname()); };
    g_signal_connect(app, "activate", G_CALLBACK(+activated), nullptr);
    return g_application_run(app, argc, argv);
}
