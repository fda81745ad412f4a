import java.util.List;
import java.util.concurrent.*;
import java.util.stream.IntStream;

/** Runs a task in several threads, of each kind that the JDK has. */
final class Threads {
    interface Task {
        void run(int thread) throws Exception;
    }

    /** Platform threads, and virtual threads on JDK 21 or later. */
    static List<ThreadFactory> kinds() throws ReflectiveOperationException {
        if (Runtime.version().feature() < 21) {
            return List.of(Thread::new);
        }
        Object virtual = Thread.class.getMethod("ofVirtual").invoke(null);
        Object factory = Class.forName("java.lang.Thread$Builder").getMethod("factory").invoke(virtual);
        return List.of(Thread::new, (ThreadFactory) factory);
    }

    /** Returns once all threads have ended, and throws the first failure. */
    static void run(ThreadFactory kind, int count, Task task) throws Exception {
        List<FutureTask<Void>> tasks = IntStream.range(0, count).mapToObj(thread -> new FutureTask<Void>(() -> {
            task.run(thread);
            return null;
        })).toList();
        tasks.forEach(started -> kind.newThread(started).start());
        for (FutureTask<Void> started : tasks) {
            started.get();
        }
    }

    private Threads() {
    }
}
