/* A plain C99 program using the installed library. */
#include <stdio.h>
#include <string.h>
#include <xkl.h>

int main(void) {
  const XKLibVersion *v = XKGetLibVersion();
  float **table;
  short w[2];
  float back[2];
  const float x[2] = {1000.0f, -3.0f};
  int scale = 0;

  if (v->major != 4 || strcmp(v->name, "xklm5.dll") != 0) return 1;
  XKSetErrMode(XK_ErrorModeSilent);
  table = XKsAlloc2(3, 5);
  if (table == NULL || ((size_t)table[1] - (size_t)table[0]) != 32) return 2;
  table[2][4] = 1.0f;
  XKFree2(table);
  if (XKswbConvertDown(x, w, 2, XK_AUTO_SCALE, &scale) != -5 || w[0] != 32000) return 3;
  XKwsbConvertUp(w, back, 2, -scale);
  if (back[0] != 1000.0f || back[1] != -3.0f) return 4;
  printf("%s %s: ok\n", v->name, v->version);
  return 0;
}
