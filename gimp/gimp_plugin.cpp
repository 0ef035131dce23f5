// Mendaris K in GIMP 2.10: Filters > Tawny Quince > Mendaris K.
//
// The one file that speaks to GIMP; a port to another GIMP is this file. It
// registers the procedure, reads the active layer through GEGL in the
// layer's own encoding, gives it with the selection to the filter (through
// layer_run), and writes the result back as one undo step.
#include <libgimp/gimp.h>

#include <stdint.h>

#include <new>
#include <string>
#include <vector>

#include "gimp/layer_run.h"

namespace {

char kProcedure[] = "plug-in-mendaris-k";

// The samples as GEGL hands them over unchanged: the layer's own format when
// the filter takes its sample type (8-bit, 16-bit, float); otherwise (half,
// 32-bit integer, double) float in the same colour model, gamma and space.
struct LayerFormat {
  const Babl* format = nullptr;
  int depth = 8;
  int colourPlanes = 3;
  bool transparency = true;
};

LayerFormat layerFormat(gint32 drawable) {
  const Babl* own = gimp_drawable_get_format(drawable);
  const Babl* type = babl_format_get_type(own, 0);
  LayerFormat f;
  f.transparency = babl_format_has_alpha(own) != 0;
  f.colourPlanes = babl_format_get_n_components(own) - (f.transparency ? 1 : 0);
  f.format = own;
  if (type == babl_type("u8")) {
    f.depth = 8;
  } else if (type == babl_type("u16")) {
    f.depth = 16;
  } else {
    f.depth = 32;
    if (type != babl_type("float")) {
      std::string encoding = std::string(babl_get_name(babl_format_get_model(own))) + " float";
      f.format = babl_format_with_space(encoding.c_str(), babl_format_get_space(own));
    }
  }
  return f;
}

// The selection over the layer, one byte a pixel, 255 selected; empty when
// nothing is selected, which in GIMP means all of it.
std::vector<uint8_t> selectionOverLayer(gint32 image, gint32 drawable, int width, int height) {
  if (gimp_selection_is_empty(image)) return {};
  GeglRectangle area = {0, 0, width, height};
  gimp_drawable_offsets(drawable, &area.x, &area.y);
  std::vector<uint8_t> mask(size_t(width) * size_t(height));
  GeglBuffer* selection = gimp_drawable_get_buffer(gimp_image_get_selection(image));
  gegl_buffer_get(selection, &area, 1.0, babl_format("Y u8"), mask.data(), GEGL_AUTO_ROWSTRIDE, GEGL_ABYSS_NONE);
  g_object_unref(selection);
  return mask;
}

void showProgress(double fraction) {
  static int shown = -1;
  int percent = int(fraction * 100.0);
  if (percent == shown) return;
  shown = percent;
  gimp_progress_update(fraction);
}

void query() {
  static GimpParamDef arguments[] = {
      {GIMP_PDB_INT32, const_cast<gchar*>("run-mode"),
       const_cast<gchar*>("The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1) }")},
      {GIMP_PDB_IMAGE, const_cast<gchar*>("image"), const_cast<gchar*>("Input image")},
      {GIMP_PDB_DRAWABLE, const_cast<gchar*>("drawable"), const_cast<gchar*>("The layer to fill")},
  };
  gimp_install_procedure(kProcedure, "Fills in transparent areas",
                         "Every transparent pixel of the layer gets a colour that continues the opaque part, "
                         "and the layer comes back opaque within the selection.",
                         "Tawny Quince", "Tawny Quince", "2026", "Mendaris K", "RGB*, GRAY*", GIMP_PLUGIN,
                         G_N_ELEMENTS(arguments), 0, arguments, nullptr);
  gimp_plugin_menu_register(kProcedure, "<Image>/Filters/Tawny Quince");
}

// Filters the layer; returns an empty string when done, else the one line for the user.
std::string filterActiveLayer(gint32 image, gint32 drawable) {
  if (!gimp_item_is_layer(drawable) || gimp_item_is_group(drawable)) {
    return "Mendaris K works on a layer's own pixels, not on a channel, a layer mask or a layer group";
  }
  gint x, y, w, h;
  // Nothing of the layer is selected: nothing to do.
  if (!gimp_drawable_mask_intersect(drawable, &x, &y, &w, &h)) return "";
  int width = gimp_drawable_width(drawable);
  int height = gimp_drawable_height(drawable);
  std::string problem = mendaris_gimp::checkLayerSize(width, height);
  if (!problem.empty()) return problem;
  LayerFormat f = layerFormat(drawable);
  if (f.transparency && gimp_layer_get_lock_alpha(drawable)) {
    return "the layer's alpha channel is locked, and Mendaris K makes transparent pixels opaque";
  }

  mendaris_cli::FilterSession session;
  standin::Document& d = session.document;
  d = standin::Document::make(width, height, f.depth, f.colourPlanes, f.transparency);
  GeglRectangle whole = {0, 0, width, height};
  GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
  gegl_buffer_get(buffer, &whole, 1.0, f.format, d.pixels.data(), GEGL_AUTO_ROWSTRIDE, GEGL_ABYSS_NONE);
  g_object_unref(buffer);
  d.mask = selectionOverLayer(image, drawable, width, height);

  gimp_progress_init("Mendaris K");
  problem = mendaris_gimp::filterLayer(session, showProgress);
  if (!problem.empty()) return problem;
  // Past here GIMP's cancel, which ends the plug-in's process, would leave a
  // half-written layer: the progress (and its cancel button) ends first.
  gimp_progress_end();

  // GIMP's merge of a shadow makes the undo step, but over the selection's
  // bounds only, blending by the selection once more. The filter has applied
  // the selection itself, and its 16-bit round trip reaches every pixel: so
  // the selection is set aside for the merge (all in one undo group), and
  // the filter's own samples then go straight into the layer, which the
  // undo step covers whole.
  gimp_image_undo_group_start(image);
  gint32 selection = gimp_selection_is_empty(image) ? -1 : gimp_selection_save(image);
  if (selection != -1) gimp_selection_none(image);
  GeglBuffer* shadow = gimp_drawable_get_shadow_buffer(drawable);
  gegl_buffer_set(shadow, &whole, 0, f.format, d.pixels.data(), GEGL_AUTO_ROWSTRIDE);
  g_object_unref(shadow);
  // GIMP says why when it refuses (a layer whose pixels are locked).
  bool merged = gimp_drawable_merge_shadow(drawable, TRUE);
  if (merged) {
    buffer = gimp_drawable_get_buffer(drawable);
    gegl_buffer_set(buffer, &whole, 0, f.format, d.pixels.data(), GEGL_AUTO_ROWSTRIDE);
    g_object_unref(buffer);
    gimp_drawable_update(drawable, 0, 0, width, height);
  }
  if (selection != -1) {
    gimp_image_select_item(image, GIMP_CHANNEL_OP_REPLACE, selection);
    gimp_image_remove_channel(image, selection);
  }
  gimp_image_undo_group_end(image);
  if (!merged) return "the layer could not be changed";
  return "";
}

void run(const gchar*, gint argumentCount, const GimpParam* arguments, gint* valueCount, GimpParam** values) {
  static GimpParam answer[2];
  static std::string problem;
  *valueCount = 1;
  *values = answer;
  answer[0].type = GIMP_PDB_STATUS;
  answer[0].data.d_status = GIMP_PDB_SUCCESS;
  if (argumentCount < 3) {
    answer[0].data.d_status = GIMP_PDB_CALLING_ERROR;
    return;
  }
  gegl_init(nullptr, nullptr);
  GimpRunMode mode = GimpRunMode(arguments[0].data.d_int32);
  try {
    problem = filterActiveLayer(arguments[1].data.d_image, arguments[2].data.d_drawable);
  } catch (const std::bad_alloc&) {
    problem = "there is not enough memory to filter the layer";
  }
  if (problem.empty()) {
    if (mode != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
    return;
  }
  answer[0].data.d_status = GIMP_PDB_EXECUTION_ERROR;
  if (mode == GIMP_RUN_NONINTERACTIVE) {
    // A script gets the words with the failure.
    *valueCount = 2;
    answer[1].type = GIMP_PDB_STRING;
    answer[1].data.d_string = const_cast<gchar*>(problem.c_str());
  } else {
    gimp_message(problem.c_str());
  }
}

}  // namespace

const GimpPlugInInfo PLUG_IN_INFO = {nullptr, nullptr, query, run};

MAIN()
