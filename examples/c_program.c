/* A program in C: says whose session token it reads from its standard input. It does not verify the token, so what it
 * says is good for a log line and never for a decision.
 *
 *     c_program <token
 */

#include <jwt/JWT.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void print(const char* what, const char* text) {
    printf("%s: %s\n", what, text != NULL ? text : "none");
}

int main(void) {
    char token[8192];
    if (fgets(token, sizeof token, stdin) == NULL) {
        fputs("usage: c_program <token\n", stderr);
        return 2;
    }
    token[strcspn(token, "\r\n")] = '\0';

    /* What cannot be found is left alone, so everything begins as NULL. */
    char* subject = NULL;
    char* name = NULL;
    char* domain = NULL;
    char* type = NULL;
    extractSubjectNT_C(token, &subject);
    extractSubject_C(token, &domain, &name, &type); /* the second component comes first */
    print("subject", subject);
    print("name", name);
    print("domain", domain);
    print("type", type);

    const int status = subject != NULL ? 0 : 1;
    free(subject);
    free(name);
    free(domain);
    free(type);
    return status;
}
