package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.List;
import java.util.Map;
import org.junit.Test;

/** With the handle 0 every method does nothing and returns its default. */
public class HandleZeroTest {
    /** What differs from false, 0 and nothing. */
    private static final Map<String, Object> DEFAULTS = Map.of(
            "getVersion", "Not Defined", "getDescription", "Unknown", "getAccessMode", -1);

    private static Object argument(Class<?> type, boolean empty) {
        if (type == String.class) {
            return empty ? null : "/tmp";
        }
        if (type == boolean.class) {
            return !empty;
        }
        if (type == int.class) {
            return empty ? 0 : 1;
        }
        return empty ? 0L : 1L;
    }

    private static void callAll(boolean empty) throws ReflectiveOperationException {
        RecordingHost host = new RecordingHost();
        int called = 0;
        for (Method method : NfsLibNative.class.getDeclaredMethods()) {
            if (!Modifier.isNative(method.getModifiers()) || method.getName().equals("initial")) {
                continue;
            }
            Class<?>[] types = method.getParameterTypes();
            Object[] arguments = new Object[types.length];
            arguments[0] = 0L;
            for (int i = 1; i < types.length; ++i) {
                arguments[i] = argument(types[i], empty);
            }
            Object nothing = method.getReturnType() == boolean.class ? Boolean.FALSE
                    : method.getReturnType() == int.class ? Integer.valueOf(0) : null;
            assertEquals(method.getName(), DEFAULTS.getOrDefault(method.getName(), nothing),
                    method.invoke(host, arguments));
            ++called;
        }
        assertEquals(31, called);
        assertEquals(List.of(), host.lines);
        assertEquals(List.of(), host.notifications);
        assertEquals(0, host.interruptedAsked.get());
    }

    @Test
    public void everyMethodReturnsItsDefault() throws ReflectiveOperationException {
        callAll(false);
    }

    @Test
    public void everyMethodReturnsItsDefaultForEmptyArguments()
            throws ReflectiveOperationException {
        callAll(true);
    }

    @Test
    public void theCallbackLoopReturnsAtOnceWhateverTheSeconds() {
        RecordingHost host = new RecordingHost();
        assertEquals(0, host.receiveCallbackLoop(0, -1));
        assertEquals(0, host.interruptedAsked.get());
    }
}
