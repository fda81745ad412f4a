import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import org.junit.jupiter.api.Test;

class ExportsTest {
    @Test
    void theNativeMethodsAndNothingElse() throws Exception {
        List<String> natives = Natives.ALL.stream()
                .map(method -> "Java_com_calvenhor_vork_utils_Smartcard_" + method.getName()).toList();
        List<String> exports = Command.run("nm", "-D", "--defined-only", System.getProperty("library")).lines()
                .map(line -> line.substring(line.lastIndexOf(' ') + 1)).sorted().toList();
        assertEquals(natives, exports);
        assertEquals(49, exports.size());
    }
}
