/* The floor of `stonewall compile` with its reload: one compile of a rule
 * list by WebKitGTK on its own, in a process that links WebKit directly.
 *
 *   bench_webkit_compile FILE STORE
 */

#include <stdio.h>
#include <webkit/webkit.h>

static int failed = -1;

static void saved(GObject* store, GAsyncResult* result, gpointer loop) {
    GError* error = NULL;
    WebKitUserContentFilter* filter = webkit_user_content_filter_store_save_finish(
        WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
    if (filter) {
        webkit_user_content_filter_unref(filter);
        failed = 0;
    } else {
        fprintf(stderr, "%s\n", error->message);
        g_error_free(error);
        failed = 1;
    }
    g_main_loop_quit(loop);
}

int main(int argc, char** argv) {
    gchar* text = NULL;
    gsize length = 0;
    if (argc != 3 || !g_file_get_contents(argv[1], &text, &length, NULL)) {
        fprintf(stderr, "usage: %s FILE STORE\n", argv[0]);
        return 2;
    }
    GBytes* source = g_bytes_new_take(text, length);
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(argv[2]);
    webkit_user_content_filter_store_save(store, "bench", source, NULL, saved, loop);
    g_main_loop_run(loop);
    g_object_unref(store);
    g_bytes_unref(source);
    g_main_loop_unref(loop);
    return failed;
}
