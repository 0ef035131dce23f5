; Script-Fu for gimp_plugin.sh: runs plug-in-mendaris-k over image files in
; GIMP and exports what comes out.

; The selection along the top row, and how many channels the image holds.
(define (selection-state image)
  (cons (car (gimp-image-get-channels image))
        (map (lambda (x) (car (gimp-selection-value image x 0))) '(0 24 36 48 60 72 96))))

; Opens IN, selects by the alpha of MASK-LAYER (no selection when it is #f),
; runs the filter on the active layer as the menu does, and exports the
; image to OUT, as TIFF or PNG by its name. A refusal is shown as a GIMP
; message, and the image is exported all the same. The filter must leave
; the selection as it was.
(define (mendaris-file in out mask-layer)
  (let* ((image (car (gimp-file-load RUN-NONINTERACTIVE in in)))
         (layer (car (gimp-image-get-active-layer image))))
    (if mask-layer
        (let ((copy (car (gimp-layer-new-from-drawable mask-layer image))))
          (gimp-image-insert-layer image copy 0 -1)
          (gimp-image-select-item image CHANNEL-OP-REPLACE copy)
          (gimp-image-remove-layer image copy)
          (gimp-image-set-active-layer image layer)))
    (let ((before (selection-state image)))
      (catch #f (plug-in-mendaris-k RUN-INTERACTIVE image layer))
      (if (not (equal? before (selection-state image)))
          (gimp-message (string-append "FAIL: the selection of " in " changed"))))
    (if (string=? (substring out (- (string-length out) 4) (string-length out)) ".tif")
        (file-tiff-save RUN-NONINTERACTIVE image layer out out 0)
        ; the last argument keeps the colour of transparent pixels
        (file-png-save2 RUN-NONINTERACTIVE image layer out out 0 0 0 0 0 0 0 0 1))
    (gimp-image-delete image)))

; Every name in NAMES from IN-DIR to OUT-DIR, selected by the alpha of
; MASK-FILE, or with no selection when MASK-FILE is "".
(define (mendaris-files in-dir out-dir mask-file names)
  (let ((mask-layer (if (string=? mask-file "")
                        #f
                        (car (gimp-image-get-active-layer
                               (car (gimp-file-load RUN-NONINTERACTIVE mask-file mask-file)))))))
    (for-each (lambda (name)
                (mendaris-file (string-append in-dir "/" name) (string-append out-dir "/" name) mask-layer))
              names)))
