;;; dape.el --- Drives Emacs' debugger front end  -*- lexical-binding: t; -*-

;; (drive PROGRAM LINE RESULTS) debugs the program as a user would: a breakpoint, the command that
;; starts, a step, values; what was seen goes as JSON into the file RESULTS.

(require 'dape)

(defconst kSeconds 60)

(defmacro wait-for (form)
  "The first value of FORM that is not nil."
  `(let (found)
     (with-timeout (kSeconds (error "This did not come: %S" ',form))
       (while (not (setq found ,form))
         (accept-process-output nil 0.01)))
     found))

(defun stopped-connection ()
  (dape--live-connection 'stopped t))

(defun place ()
  "Function and line of the innermost frame, when the program has stopped."
  (let* ((stopped (stopped-connection))
         (frame (and stopped (dape--current-stack-frame stopped))))
    (and frame (vector (plist-get frame :name) (plist-get frame :line)))))

(defun value-of (expression)
  (let (result (conn (stopped-connection)))
    (dape--evaluate-expression
     conn (plist-get (dape--current-stack-frame conn) :id) expression "watch"
     (cl-function (lambda (body &optional error)
                    (setq result (or (plist-get body :result) error "nothing")))))
    (wait-for result)))

(defun drive (program line results)
  (setq dape-start-hook nil dape-stopped-hook nil dape-update-ui-hook nil dape-display-source-hook nil)
  (find-file program)
  (python-mode)
  (goto-char (point-min))
  (forward-line (1- line))
  (dape-breakpoint-toggle)
  (dape (dape--config-eval 'tdbg nil))
  (let* ((first (wait-for (place)))
         (started (stopped-connection))
         (value (value-of "value"))
         second)
    (dape-next (stopped-connection))
    (setq second (wait-for (let ((now (place))) (and now (not (equal now first)) now))))
    (let ((doubled (value-of "result")))
      (dape-continue (stopped-connection))
      (wait-for (memq (dape--state started) '(exited terminated)))
      (with-temp-file results
        (insert (json-encode (vector first value second doubled t)))))))

;;; dape.el ends here
