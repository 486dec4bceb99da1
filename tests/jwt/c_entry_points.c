/* The entry points for C, called from C. Prints what went wrong and exits with 1 if anything did. */

#include <jwt/JWT.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* {"is_machine":"false","sub":"A:B:C"} */
#define USER "e30.eyJpc19tYWNoaW5lIjoiZmFsc2UiLCJzdWIiOiJBOkI6QyJ9.c2ln"
/* {"is_machine":"false","sub":"::A::B:"} */
#define GAPS "e30.eyJpc19tYWNoaW5lIjoiZmFsc2UiLCJzdWIiOiI6OkE6OkI6In0.c2ln"
/* {"is_machine":"true","sub":"host.example"} */
#define MACHINE "e30.eyJpc19tYWNoaW5lIjoidHJ1ZSIsInN1YiI6Imhvc3QuZXhhbXBsZSJ9.c2ln"
/* {"sub":"A:B:C"} */
#define NEITHER "e30.eyJzdWIiOiJBOkI6QyJ9.c2ln"
/* {"is_machine":"false","sub":"A:B:C:D"} */
#define FOUR "e30.eyJpc19tYWNoaW5lIjoiZmFsc2UiLCJzdWIiOiJBOkI6QzpEIn0.c2ln"

static int failures = 0;

static void expect(const char* what, const char* actual, const char* expected) {
    if (actual == NULL || expected == NULL ? actual != expected : strcmp(actual, expected) != 0) {
        printf("%s: %s instead of %s\n", what, actual != NULL ? actual : "(null)",
               expected != NULL ? expected : "(null)");
        ++failures;
    }
}

static void expectComponents(const char* token, const char* a, const char* b, const char* c) {
    char* first = NULL;
    char* second = NULL;
    char* third = NULL;
    extractSubject_C(token, &second, &first, &third);
    expect("first component", first, a);
    expect("second component", second, b);
    expect("third component", third, c);
    free(first);
    free(second);
    free(third);
}

static void expectSubject(const char* token, const char* expected) {
    char* subject = NULL;
    extractSubjectNT_C(token, &subject);
    expect("subject", subject, expected);
    free(subject);
}

static void expectUntouchedOutputs(void) {
    char untouched[] = "untouched";
    char* subject = untouched;
    char* second = untouched;
    char* first = untouched;
    char* third = untouched;
    extractSubjectNT_C("not a token", &subject);
    extractSubject_C(NEITHER, &second, &first, &third);
    expect("subject of no token", subject, "untouched");
    expect("first of a token of neither kind", first, "untouched");
    expect("second of a token of neither kind", second, "untouched");
    expect("third of a token of neither kind", third, "untouched");
    extractSubject_C(GAPS, &second, &first, &third);
    expect("third of two", third, "untouched");
    free(first);
    free(second);
}

int main(void) {
    expectComponents(USER, "A", "B", "C");
    expectComponents(GAPS, "A", "B", NULL);
    expectComponents(FOUR, "A", "B", "C");
    expectComponents(MACHINE, "host.example", "", "tm");
    expectComponents(NEITHER, NULL, NULL, NULL);
    expectComponents("not a token", NULL, NULL, NULL);
    expectComponents(NULL, NULL, NULL, NULL);
    expectSubject(USER, "A:B:C");
    expectSubject(NEITHER, "A:B:C");
    expectSubject(MACHINE, "host.example");
    expectSubject("not a token", NULL);
    expectSubject(NULL, NULL);
    expectUntouchedOutputs();
    extractSubject_C(USER, NULL, NULL, NULL);
    extractSubjectNT_C(USER, NULL);
    return failures == 0 ? 0 : 1;
}
