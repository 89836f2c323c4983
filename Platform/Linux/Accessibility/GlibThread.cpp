#include "Platform/Linux/Accessibility/GlibThread.h"

#include <pthread.h>

#include <memory>
#include <utility>

namespace velmora {

GlibThread::GlibThread(const char* name)
    : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)), thread_([this, name] {
          pthread_setname_np(pthread_self(), name);
          g_main_context_push_thread_default(context_);
          g_main_loop_run(loop_);
          // What was cancelled completes, and lets go of what it holds.
          while (g_main_context_iteration(context_, FALSE)) {
          }
          g_main_context_pop_thread_default(context_);
      }) {}

GlibThread::~GlibThread() {
    post([this] { g_main_loop_quit(loop_); });
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
}

void GlibThread::post(UniqueFunction<void()> block) {
    // Not g_main_context_invoke: before the thread has taken the context it would run the block right here.
    using Block = UniqueFunction<void()>;
    auto held = std::make_unique<Block>(std::move(block));
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            (*static_cast<Block*>(data))();
            return G_SOURCE_REMOVE;
        },
        held.release(), [](gpointer data) { delete static_cast<Block*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
}

}  // namespace velmora
